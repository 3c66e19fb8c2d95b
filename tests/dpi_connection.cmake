# The DPI subagent connection library over loopback sockets, and the installed library as a
# C subagent program sees it.
find_package(Threads REQUIRED)
add_executable(dpi_connection_test ${CMAKE_CURRENT_SOURCE_DIR}/dpi_connection_test.cpp)
target_link_libraries(dpi_connection_test PRIVATE dpisa vx_testsupport GTest::gtest_main
                                                  Threads::Threads)
# Cases that wait out the library's fixed time-outs (up to 18 s) run as one labelled test,
# so that `ctest -LE slow` stays quick.
gtest_discover_tests(dpi_connection_test TEST_FILTER "-*.Slow*")
add_test(NAME dpi_connection_slow COMMAND dpi_connection_test --gtest_filter=*.Slow*)
set_tests_properties(dpi_connection_slow PROPERTIES LABELS slow TIMEOUT 120)

# Under the sanitizers or coverage the example must carry their runtime, as the library does.
string(JOIN " " dpi_example_flags ${VARNEX_SAN_FLAGS} ${VARNEX_COV_FLAGS})
add_test(NAME dpi_install
         COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/dpi_install_test.sh ${CMAKE_BINARY_DIR}
                 ${CMAKE_SOURCE_DIR}/examples/dpi_c_api.c ${CMAKE_C_COMPILER}
                 "${dpi_example_flags}")
set_tests_properties(dpi_install PROPERTIES TIMEOUT 120)
