# What `make install` (cmake --install) puts where; the layout is
# cmake/KelpLayout.cmake's. Files that other work adds later (mibs/*.txt,
# docs/man/*.[1-8]) are globbed when installing, so that a new one is
# installed without reconfiguring and a missing one is no error.
install(TARGETS kelpagent RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(TARGETS kelpctl kelpgen RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS kelpimp64 kelpruntime LIBRARY DESTINATION ${KELP_INSTALL_PKGLIBDIR})

install(FILES data/models/sample.xml DESTINATION ${KELP_INSTALL_PKGDATADIR}/models)
install(FILES data/alerts.txt DESTINATION ${KELP_INSTALL_PKGDATADIR})
# The configuration goes where GNUInstallDirs puts the prefix's etc, where
# a build for that prefix reads it (KELP_SYSCONFDIR): /etc for the prefix
# /usr, /etc/opt/NAME for /opt/NAME, <prefix>/etc otherwise; decided when
# installing, so that `cmake --install --prefix /usr` and the package put
# it in /etc.
install(CODE "
  if(IS_ABSOLUTE \"${CMAKE_INSTALL_SYSCONFDIR}\")
    set(kelp_confdir \"${CMAKE_INSTALL_SYSCONFDIR}/kelp\")
  elseif(CMAKE_INSTALL_PREFIX STREQUAL \"/usr\")
    set(kelp_confdir /etc/kelp)
  elseif(CMAKE_INSTALL_PREFIX MATCHES \"^/opt/\")
    set(kelp_confdir \"/etc\${CMAKE_INSTALL_PREFIX}/kelp\")
  else()
    set(kelp_confdir \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_SYSCONFDIR}/kelp\")
  endif()
  file(INSTALL DESTINATION \"\${kelp_confdir}\" TYPE FILE
       FILES \"${CMAKE_SOURCE_DIR}/packaging/kelpagent.conf\")")
install(FILES packaging/kelp.sysusers DESTINATION ${KELP_INSTALL_SYSUSERSDIR} RENAME kelp.conf)

install(CODE "
  file(GLOB kelp_mibs \"${CMAKE_SOURCE_DIR}/mibs/*.txt\")
  if(kelp_mibs)
    file(INSTALL DESTINATION \"\${CMAKE_INSTALL_PREFIX}/${KELP_INSTALL_MIBDIR}\" TYPE FILE
         FILES \${kelp_mibs})
  endif()
  # Manual pages go in compressed, as Debian's policy asks (gzip -9n: no
  # name or time stamp in the file, so that builds are reproducible).
  string(RANDOM LENGTH 12 kelp_tag)
  set(kelp_gz \"${CMAKE_BINARY_DIR}/man-gz-\${kelp_tag}\")
  foreach(section 1 2 3 4 5 6 7 8)
    file(GLOB kelp_pages \"${CMAKE_SOURCE_DIR}/docs/man/*.\${section}\")
    set(kelp_gz_pages)
    foreach(page \${kelp_pages})
      get_filename_component(kelp_name \"\${page}\" NAME)
      file(MAKE_DIRECTORY \"\${kelp_gz}\")
      execute_process(COMMAND gzip -9n -c \"\${page}\" OUTPUT_FILE \"\${kelp_gz}/\${kelp_name}.gz\"
                      RESULT_VARIABLE kelp_gzip)
      if(NOT kelp_gzip EQUAL 0)
        message(FATAL_ERROR \"gzip \${page}: \${kelp_gzip}\")
      endif()
      list(APPEND kelp_gz_pages \"\${kelp_gz}/\${kelp_name}.gz\")
    endforeach()
    if(kelp_gz_pages)
      file(INSTALL DESTINATION \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_MANDIR}/man\${section}\"
           TYPE FILE FILES \${kelp_gz_pages})
    endif()
  endforeach()
  file(REMOVE_RECURSE \"\${kelp_gz}\")")

# The unit names the agent where this install puts it: the prefix is the
# install's (cmake --install --prefix, CPack), not only the configured one.
# Every install generates its copy in a directory of its own, removed once
# the copy is installed: installs running at once (tests, packaging jobs)
# share the build tree and often the prefix too, and configure_file's
# temporary file would otherwise be taken from under another one's feet.
install(CODE "
  set(KELP_SBINDIR \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_SBINDIR}\")
  string(RANDOM LENGTH 16 ALPHABET 0123456789abcdef kelp_unit_key)
  set(kelp_unit_dir \"${CMAKE_BINARY_DIR}/packaging/unit-\${kelp_unit_key}\")
  configure_file(\"${CMAKE_SOURCE_DIR}/packaging/kelpagent.service.in\"
                 \"\${kelp_unit_dir}/kelpagent.service\" @ONLY)
  file(INSTALL DESTINATION \"\${CMAKE_INSTALL_PREFIX}/${KELP_INSTALL_UNITDIR}\" TYPE FILE
       FILES \"\${kelp_unit_dir}/kelpagent.service\")
  file(REMOVE_RECURSE \"\${kelp_unit_dir}\")")
