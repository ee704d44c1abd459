# `make package`: a Debian package of what KelpInstall.cmake installs, built
# by CPack's DEB generator for the prefix the build was configured with
# (make package configures /usr). Its postinst creates the user kelp and
# enables or starts nothing.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kelp)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "kelp developers <kelp@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "storage management MIB served by an SNMP agent")
set(CPACK_PACKAGE_DESCRIPTION
    "kelpagent serves the storage management MIB of this machine's controllers, disks and enclosures (or of a storage model) over SNMP, with kelpctl to control it and a systemd service.")
# Installed through DESTDIR with the build's prefix, so that the install
# rules that decide on the prefix (the configuration in /etc for /usr) see it.
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_COMPRESSION_TYPE gzip)
# The libraries the programs link, as Debian 12 names them (dpkg-shlibdeps
# would also have to be taught the private lib/kelp).
set(CPACK_DEBIAN_PACKAGE_DEPENDS
    "libc6 (>= 2.34), libstdc++6 (>= 12), libgcc-s1, libsnmp40, libsystemd0, libudev1, adduser | systemd")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "snmp, snmptrapd")

set(KELP_SYSUSERS_FILE ${CMAKE_INSTALL_PREFIX}/${KELP_INSTALL_SYSUSERSDIR}/kelp.conf)
configure_file(packaging/debian/postinst ${CMAKE_BINARY_DIR}/packaging/debian/postinst @ONLY)
configure_file(packaging/debian/postrm ${CMAKE_BINARY_DIR}/packaging/debian/postrm COPYONLY)
configure_file(packaging/debian/prerm ${CMAKE_BINARY_DIR}/packaging/debian/prerm COPYONLY)
file(WRITE ${CMAKE_BINARY_DIR}/packaging/debian/conffiles "${KELP_SYSCONFDIR}/kelp/kelpagent.conf\n")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${CMAKE_BINARY_DIR}/packaging/debian/postinst ${CMAKE_BINARY_DIR}/packaging/debian/prerm
    ${CMAKE_BINARY_DIR}/packaging/debian/postrm ${CMAKE_BINARY_DIR}/packaging/debian/conffiles)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR}/package)
include(CPack)
