# SMUX codec cost per message: encode and decode of a typical GetResponse.
if(TARGET snmpkit AND benchmark_FOUND)
  add_executable(smux_bench ${CMAKE_CURRENT_SOURCE_DIR}/smux_bench.cpp)
  target_link_libraries(smux_bench PRIVATE snmpkit benchmark::benchmark_main)
endif()
