# pkg-config files of the installed libraries.
#
# varnex_pkg_config(<name> <include subdirectory> [COMPONENT <component>]) fills
# <name>.pc.in beside the calling CMakeLists.txt and installs <name>.pc into
# <libdir>/pkgconfig. The file names its prefix relative to its own place, so a copy
# installed with `cmake --install <build> --prefix <dir>` works wherever <dir> is, unless
# the install directories were given as absolute paths.
function(varnex_pkg_config name include_subdir)
  cmake_parse_arguments(PARSE_ARGV 2 arg "" "COMPONENT" "")
  if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
    set(PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
    set(PC_LIBDIR "${CMAKE_INSTALL_LIBDIR}")
  else()
    file(RELATIVE_PATH up "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
    string(REGEX REPLACE "/$" "" up "${up}")
    set(PC_PREFIX "\${pcfiledir}/${up}")
    set(PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
  endif()
  if(IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
    set(PC_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}/${include_subdir}")
  else()
    set(PC_INCLUDEDIR "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}/${include_subdir}")
  endif()
  configure_file(${CMAKE_CURRENT_SOURCE_DIR}/${name}.pc.in ${CMAKE_CURRENT_BINARY_DIR}/${name}.pc
                 @ONLY)
  if(arg_COMPONENT)
    set(component COMPONENT ${arg_COMPONENT})
  endif()
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${name}.pc
          DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig ${component})
endfunction()
