# Tests of the daemon's main module: command line, SMUX session, DPI framing and dispatch.
# They run the built daemon against peers played by the test, in private namespaces.
add_library(daemon_peers STATIC ${CMAKE_CURRENT_SOURCE_DIR}/daemon_peers.cpp)
target_include_directories(daemon_peers PUBLIC ${CMAKE_CURRENT_SOURCE_DIR})
target_link_libraries(daemon_peers PUBLIC vx_testsupport GTest::gtest)
foreach(t daemon_cli_test daemon_smux_test daemon_dpi_test)
  add_executable(${t} ${CMAKE_CURRENT_SOURCE_DIR}/${t}.cpp)
  target_link_libraries(${t} PRIVATE daemon_peers GTest::gtest_main)
  add_dependencies(${t} varnex2)
  gtest_discover_tests(${t} PROPERTIES TIMEOUT 120)
endforeach()
