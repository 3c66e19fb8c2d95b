# The port-query answer decoder of the DPI library.
if(TARGET dpisa)
  add_executable(fuzz_extract_DPI_port ${CMAKE_CURRENT_LIST_DIR}/dpi_port.cpp)
  target_compile_options(fuzz_extract_DPI_port PRIVATE -fsanitize=fuzzer)
  target_link_options(fuzz_extract_DPI_port PRIVATE -fsanitize=fuzzer)
  target_link_libraries(fuzz_extract_DPI_port PRIVATE dpisa)
endif()
