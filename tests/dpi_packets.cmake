# DPI packet library: building, parsing, releasing.
add_executable(dpi_packet_test ${CMAKE_CURRENT_SOURCE_DIR}/dpi_packet_test.cpp)
target_link_libraries(dpi_packet_test PRIVATE dpisa vx_testsupport GTest::gtest_main)
gtest_discover_tests(dpi_packet_test)
