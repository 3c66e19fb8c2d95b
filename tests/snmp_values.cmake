# Tests of the SNMP library's value layer: containers with their printable forms, debug helpers.
foreach(test snmp_container_test snmp_debug_test)
  add_executable(${test} ${CMAKE_CURRENT_SOURCE_DIR}/${test}.cpp)
  target_link_libraries(${test} PRIVATE snmpkit GTest::gtest_main)
  gtest_discover_tests(${test})
endforeach()
