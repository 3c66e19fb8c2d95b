# The daemon as an AgentX subagent: against the real snmpd (with snmptrapd, the example
# subagent and subagents played by the test), and against a master played by the test for
# what snmpd never sends.
add_executable(agentx_snmpd_test ${CMAKE_CURRENT_SOURCE_DIR}/agentx_snmpd_test.cpp)
target_link_libraries(agentx_snmpd_test PRIVATE vx_testsupport GTest::gtest_main)
target_compile_definitions(agentx_snmpd_test
                           PRIVATE EXAMPLE_SUBAGENT_PATH="$<TARGET_FILE:example_subagent>")
add_dependencies(agentx_snmpd_test varnex2 example_subagent)
gtest_discover_tests(agentx_snmpd_test PROPERTIES TIMEOUT 180)

add_executable(agentx_daemon_test ${CMAKE_CURRENT_SOURCE_DIR}/agentx_daemon_test.cpp)
target_link_libraries(agentx_daemon_test PRIVATE vx_testsupport snmpkit GTest::gtest_main)
add_dependencies(agentx_daemon_test varnex2)
gtest_discover_tests(agentx_daemon_test PROPERTIES TIMEOUT 120)
