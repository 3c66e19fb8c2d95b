# Tests of the SNMP library's AgentX codec.
add_executable(agentx_ed_test ${CMAKE_CURRENT_SOURCE_DIR}/agentx_ed_test.cpp)
target_link_libraries(agentx_ed_test PRIVATE snmpkit vx_testsupport GTest::gtest_main)
gtest_discover_tests(agentx_ed_test)
