# What an operator installs, read from the finished build tree: the service unit, the manual
# pages, the pkg-config files and the Debian package. Under the sanitizers the C program must
# carry their runtime, as the library does.
string(JOIN " " operator_cflags ${VARNEX_SAN_FLAGS})
foreach(mode unit man pc deb)
  add_test(NAME operator_${mode} COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/operator_test.sh ${mode}
                                 ${CMAKE_BINARY_DIR} ${CMAKE_C_COMPILER} "${operator_cflags}")
  set_tests_properties(operator_${mode} PROPERTIES SKIP_RETURN_CODE 77 TIMEOUT 180)
endforeach()
