# The DPI packet parser, with a write-and-read-again property.
if(TARGET dpisa)
  add_executable(fuzz_pDPIpacket ${CMAKE_CURRENT_LIST_DIR}/dpi_parse.cpp)
  target_compile_options(fuzz_pDPIpacket PRIVATE -fsanitize=fuzzer)
  target_link_options(fuzz_pDPIpacket PRIVATE -fsanitize=fuzzer)
  target_link_libraries(fuzz_pDPIpacket PRIVATE dpisa)
endif()
