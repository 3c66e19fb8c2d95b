# The DPI library's packets and subagent connection; the cases that wait out its fixed
# time-outs (up to 18 s) run as one test labelled slow.
find_package(Threads REQUIRED)
foreach(t dpi_packet_test dpi_connection_test)
  add_executable(${t} ${CMAKE_CURRENT_SOURCE_DIR}/${t}.cpp)
  target_link_libraries(${t} PRIVATE dpisa vx_testsupport GTest::gtest_main Threads::Threads)
  gtest_discover_tests(${t} TEST_FILTER "-*.Slow*")
endforeach()
add_test(NAME dpi_connection_slow COMMAND dpi_connection_test --gtest_filter=*.Slow*)
set_tests_properties(dpi_connection_slow PROPERTIES LABELS slow TIMEOUT 120)
# The installed library from C; the example carries the library's sanitizer or coverage runtime.
string(JOIN " " dpi_example_flags ${VARNEX_SAN_FLAGS} ${VARNEX_COV_FLAGS})
add_test(NAME dpi_install COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/dpi_install_test.sh
         ${CMAKE_BINARY_DIR} ${CMAKE_SOURCE_DIR}/examples/dpi_c_api.c ${CMAKE_C_COMPILER}
         "${dpi_example_flags}")
set_tests_properties(dpi_install PROPERTIES TIMEOUT 120)
