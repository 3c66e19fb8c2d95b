# DPI packet library: building and parsing a RESPONSE with 10 varBinds.
if(TARGET dpisa AND benchmark_FOUND)
  add_executable(dpi_bench ${CMAKE_CURRENT_SOURCE_DIR}/dpi_bench.cpp)
  target_link_libraries(dpi_bench PRIVATE dpisa benchmark::benchmark_main)
endif()
