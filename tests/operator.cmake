# What an operator installs: the service unit, the manual pages and the pkg-config files as
# `cmake --install` lays them out, and the Debian package, built by cpack and then installed
# with dpkg in a throw-away overlay. Each reads the finished build tree.
set(operator_test ${CMAKE_CURRENT_SOURCE_DIR}/operator_test.sh)
# Under the sanitizers the C program must carry their runtime, as the library does.
string(JOIN " " operator_cflags ${VARNEX_SAN_FLAGS})
foreach(mode unit man pc deb deb-install)
  string(REPLACE "-" "_" name "operator_${mode}")
  add_test(NAME ${name} COMMAND bash ${operator_test} ${mode} ${CMAKE_BINARY_DIR}
                                ${CMAKE_C_COMPILER} "${operator_cflags}")
  set_tests_properties(${name} PROPERTIES SKIP_RETURN_CODE 77 TIMEOUT 120)
endforeach()
set_tests_properties(operator_deb PROPERTIES FIXTURES_SETUP varnex2_deb)
set_tests_properties(operator_deb_install PROPERTIES FIXTURES_REQUIRED varnex2_deb)
