# Forwarding between the agent and DPI subagents: packet by packet against fake peers, and end
# to end with the real snmpd, snmptrapd and the example subagent. Both run the daemon.
add_executable(forward_daemon_test ${CMAKE_CURRENT_SOURCE_DIR}/forward_daemon_test.cpp)
target_link_libraries(forward_daemon_test PRIVATE vx_testsupport GTest::gtest_main)
add_dependencies(forward_daemon_test varnex2)
gtest_discover_tests(forward_daemon_test PROPERTIES TIMEOUT 120)

add_executable(e2e_snmpd_test ${CMAKE_CURRENT_SOURCE_DIR}/e2e_snmpd_test.cpp)
target_link_libraries(e2e_snmpd_test PRIVATE vx_testsupport GTest::gtest_main)
target_compile_definitions(e2e_snmpd_test
                           PRIVATE EXAMPLE_SUBAGENT_PATH="$<TARGET_FILE:example_subagent>")
add_dependencies(e2e_snmpd_test varnex2 example_subagent)
gtest_discover_tests(e2e_snmpd_test PROPERTIES TIMEOUT 180)
