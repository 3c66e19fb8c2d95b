# What an operator's host gets besides the binaries and libraries: the systemd unit, the
# manual pages, and a Debian package of the whole install (`cpack -G DEB` in the build tree).

set(VARNEX_SYSTEMD_UNIT_DIR "lib/systemd/system" CACHE STRING
    "Where the systemd unit goes, relative to the install prefix unless absolute")

# The unit names the daemon by its installed path, which is known only when installing:
# `cmake --install --prefix` and CPack choose the prefix then. So the unit is written at
# install time, straight into its destination.
install(CODE "
  set(sbindir \"${CMAKE_INSTALL_SBINDIR}\")
  if(NOT IS_ABSOLUTE \"\${sbindir}\")
    set(sbindir \"\${CMAKE_INSTALL_PREFIX}/\${sbindir}\")
  endif()
  set(VARNEX2_EXEC \"\${sbindir}/varnex2\")
  set(unitdir \"${VARNEX_SYSTEMD_UNIT_DIR}\")
  if(NOT IS_ABSOLUTE \"\${unitdir}\")
    set(unitdir \"\${CMAKE_INSTALL_PREFIX}/\${unitdir}\")
  endif()
  set(unit \"\$ENV{DESTDIR}\${unitdir}/varnex2.service\")
  message(STATUS \"Installing: \${unit}\")
  configure_file(\"${CMAKE_CURRENT_SOURCE_DIR}/dist/varnex2.service.in\" \"\${unit}\" @ONLY)
  file(CHMOD \"\${unit}\" PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
  list(APPEND CMAKE_INSTALL_MANIFEST_FILES \"\${unit}\")
")

install(FILES ${CMAKE_CURRENT_SOURCE_DIR}/man/varnex2.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
install(FILES ${CMAKE_CURRENT_SOURCE_DIR}/man/dpisa.3 DESTINATION ${CMAKE_INSTALL_MANDIR}/man3
        COMPONENT dpisa)

# One package holds everything: daemon, unit, manual pages, both libraries with their
# headers and pkg-config files. It installs under /usr whatever prefix the build was
# configured with; DESTDIR staging keeps that prefix in the unit's ExecStart.
set(VARNEX_PACKAGE_CONTACT "varnex2 maintainers <root@localhost>" CACHE STRING
    "Maintainer field of the Debian package")
set(CPACK_PACKAGE_NAME varnex2)
set(CPACK_PACKAGE_VENDOR varnex2)
set(CPACK_PACKAGE_CONTACT "${VARNEX_PACKAGE_CONTACT}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "DPI 2.0 subagent bridge for an SNMP agent that speaks SMUX")
set(CPACK_PACKAGE_DESCRIPTION
    "varnex2 connects to the local SNMP master agent as a SMUX peer and lets DPI 2.0\n"
    "subagents serve subtrees of its MIB. The package also holds the DPI subagent library\n"
    "(libdpisa) and the SNMP library (libsnmpkit) with their headers and pkg-config files.")
string(JOIN "" CPACK_PACKAGE_DESCRIPTION ${CPACK_PACKAGE_DESCRIPTION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_SET_DESTDIR ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS snmpd)
set(CPACK_DEBIAN_PACKAGE_SUGGESTS snmp)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_SOURCE_DIR}/dist/debian/postinst
    ${CMAKE_CURRENT_SOURCE_DIR}/dist/debian/prerm ${CMAKE_CURRENT_SOURCE_DIR}/dist/debian/postrm
    ${CMAKE_CURRENT_SOURCE_DIR}/dist/debian/triggers)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_GENERATOR DEB)
include(CPack)
