# The daemon as an AgentX subagent of the real snmpd, with snmptrapd, the example subagent and
# subagents played by the test.
add_executable(agentx_snmpd_test ${CMAKE_CURRENT_SOURCE_DIR}/agentx_snmpd_test.cpp)
target_link_libraries(agentx_snmpd_test PRIVATE vx_testsupport GTest::gtest_main)
target_compile_definitions(agentx_snmpd_test
                           PRIVATE EXAMPLE_SUBAGENT_PATH="$<TARGET_FILE:example_subagent>")
add_dependencies(agentx_snmpd_test varnex2 example_subagent)
gtest_discover_tests(agentx_snmpd_test PROPERTIES TIMEOUT 180)
