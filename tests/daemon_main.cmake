# The built daemon against peers played by the test, and end to end with the real snmpd,
# snmptrapd and the example subagent.
foreach(t daemon_cli_test daemon_smux_test e2e_snmpd_test)
  add_executable(${t} ${CMAKE_CURRENT_SOURCE_DIR}/${t}.cpp)
  target_link_libraries(${t} PRIVATE vx_testsupport snmpkit GTest::gtest_main)
  add_dependencies(${t} varnex2)
  gtest_discover_tests(${t} PROPERTIES TIMEOUT 180)
endforeach()
target_compile_definitions(e2e_snmpd_test
                           PRIVATE EXAMPLE_SUBAGENT_PATH="$<TARGET_FILE:example_subagent>")
add_dependencies(e2e_snmpd_test example_subagent)
target_compile_definitions(daemon_cli_test PRIVATE VARNEX2_BINARY="$<TARGET_FILE:varnex2>")
# The RReq timing in-process: the daemon's modules linked in, its entry point renamed.
set(daemon_dir ${CMAKE_SOURCE_DIR}/snmp/daemon)
file(GLOB daemon_sources ${daemon_dir}/*.cpp)
add_executable(daemon_registry_test ${CMAKE_CURRENT_SOURCE_DIR}/daemon_registry_test.cpp ${daemon_sources})
target_include_directories(daemon_registry_test PRIVATE ${daemon_dir})
target_compile_definitions(daemon_registry_test PRIVATE main=varnex2_main)
target_compile_options(daemon_registry_test PRIVATE -Wno-missing-declarations)
target_link_libraries(daemon_registry_test PRIVATE vx_testsupport snmpkit GTest::gtest_main)
gtest_discover_tests(daemon_registry_test)
