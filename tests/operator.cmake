# What an operator installs, read from the finished build tree: the service unit, the manual
# pages and the Debian package.
foreach(mode unit man deb)
  add_test(NAME operator_${mode} COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/operator_test.sh ${mode}
                                 ${CMAKE_BINARY_DIR})
  set_tests_properties(operator_${mode} PROPERTIES SKIP_RETURN_CODE 77 TIMEOUT 180)
endforeach()
