# The daemon as an AgentX subagent: against snmpd, and against a master the test plays.
add_executable(agentx_daemon_test ${CMAKE_CURRENT_SOURCE_DIR}/agentx_daemon_test.cpp)
target_link_libraries(agentx_daemon_test PRIVATE vx_testsupport snmpkit GTest::gtest_main)
target_compile_definitions(agentx_daemon_test PRIVATE EXAMPLE_SUBAGENT_PATH="$<TARGET_FILE:example_subagent>")
add_dependencies(agentx_daemon_test varnex2 example_subagent)
gtest_discover_tests(agentx_daemon_test PROPERTIES TIMEOUT 180)
