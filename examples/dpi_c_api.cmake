# A plain C program against the DPI library's public header: proves the header is C and the
# library links from C. tests/dpi_install_test.sh builds the same file against an installed
# copy through pkg-config.
add_executable(dpi_c_api ${CMAKE_CURRENT_LIST_DIR}/dpi_c_api.c)
target_link_libraries(dpi_c_api PRIVATE dpisa)
# The library is written in C++; its runtime comes in through the C++ linker.
set_target_properties(dpi_c_api PROPERTIES LINKER_LANGUAGE CXX)
