# The registration table and dispatch in-process, with the daemon's own modules linked in and
# its entry point renamed out of the way of the test runner's; and the daemon against the
# real snmpd.
set(daemon_dir ${CMAKE_SOURCE_DIR}/snmp/daemon)
add_executable(daemon_registry_test ${CMAKE_CURRENT_SOURCE_DIR}/daemon_registry_test.cpp
                                    ${daemon_dir}/varnex2.cpp ${daemon_dir}/trace.cpp
                                    ${daemon_dir}/conn.cpp ${daemon_dir}/holdings.cpp
                                    ${daemon_dir}/session.cpp ${daemon_dir}/agentx_session.cpp
                                    ${daemon_dir}/registry.cpp ${daemon_dir}/forward.cpp
                                    ${daemon_dir}/agentx_forward.cpp)
target_include_directories(daemon_registry_test PRIVATE ${daemon_dir})
target_compile_definitions(daemon_registry_test PRIVATE main=varnex2_main)
target_compile_options(daemon_registry_test PRIVATE -Wno-missing-declarations)
target_link_libraries(daemon_registry_test PRIVATE vx_testsupport snmpkit dpisa GTest::gtest_main)
gtest_discover_tests(daemon_registry_test)

add_executable(daemon_snmpd_test ${CMAKE_CURRENT_SOURCE_DIR}/daemon_snmpd_test.cpp)
target_link_libraries(daemon_snmpd_test PRIVATE daemon_peers GTest::gtest_main)
add_dependencies(daemon_snmpd_test varnex2)
gtest_discover_tests(daemon_snmpd_test PROPERTIES TIMEOUT 120)
