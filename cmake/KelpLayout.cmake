# Where an installed kelp puts its files, relative to the install prefix
# (GNUInstallDirs for the standard dirs), and what the programs find there.
#
# The plug-in and the runtime are private libraries: they go to lib/kelp
# (not the multiarch libdir), so that the programs find them at fixed
# $ORIGIN-relative places: <prefix>/sbin/../lib/kelp, and the runtime finds
# the alert catalogue at <prefix>/lib/kelp/../../share/kelp (agent/paths.cc,
# runtime/evtmsg/catalogue.cc).
set(KELP_INSTALL_PKGLIBDIR lib/kelp)
set(KELP_INSTALL_PKGDATADIR ${CMAKE_INSTALL_DATADIR}/kelp)
set(KELP_INSTALL_MIBDIR ${CMAKE_INSTALL_DATADIR}/snmp/mibs)
set(KELP_INSTALL_UNITDIR lib/systemd/system)
set(KELP_INSTALL_SYSUSERSDIR lib/sysusers.d)
if(NOT CMAKE_INSTALL_DATADIR STREQUAL "share" OR NOT CMAKE_INSTALL_SBINDIR STREQUAL "sbin"
   OR NOT CMAKE_INSTALL_BINDIR STREQUAL "bin")
  message(WARNING "kelp finds its installed files from bin/, sbin/ and share/ under one prefix; "
                  "other install dirs need --module, --model and KELP_CATALOGUE")
endif()

# The configuration dir as the programs see it when installed (/etc for the
# prefix /usr, <prefix>/etc otherwise): the agent's --config default is
# KELP_SYSCONFDIR "/kelp/kelpagent.conf". The prefix is chosen when
# configuring: an install to another prefix puts the file elsewhere than
# the programs look (KelpInstall.cmake).
set(KELP_SYSCONFDIR ${CMAKE_INSTALL_FULL_SYSCONFDIR})

# net-snmp's compiled-in MIB search path, for the hint on where clients
# find kelp's MIB (tools/mibpath.h).
execute_process(COMMAND net-snmp-config --default-mibdirs OUTPUT_VARIABLE KELP_NETSNMP_MIBDIRS
                OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET RESULT_VARIABLE mibdirs_result)
if(NOT mibdirs_result EQUAL 0 OR KELP_NETSNMP_MIBDIRS STREQUAL "")
  set(KELP_NETSNMP_MIBDIRS "$HOME/.snmp/mibs:/usr/share/snmp/mibs")
endif()
# net-snmp-config expands $HOME for the user who configured; keep it a variable.
string(REPLACE "$ENV{HOME}/" "$HOME/" KELP_NETSNMP_MIBDIRS "${KELP_NETSNMP_MIBDIRS}")
