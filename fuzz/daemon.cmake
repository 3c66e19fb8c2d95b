# The daemon's framing of its input streams, with the decoders the frames go to.
if(TARGET snmpkit AND TARGET dpisa)
  set(daemon_dir ${CMAKE_SOURCE_DIR}/snmp/daemon)
  add_executable(fuzz_daemon_framing ${CMAKE_CURRENT_LIST_DIR}/daemon_framing.cpp
                                     ${daemon_dir}/conn.cpp ${daemon_dir}/trace.cpp)
  target_include_directories(fuzz_daemon_framing PRIVATE ${daemon_dir})
  target_compile_options(fuzz_daemon_framing PRIVATE -fsanitize=fuzzer)
  target_link_options(fuzz_daemon_framing PRIVATE -fsanitize=fuzzer)
  target_link_libraries(fuzz_daemon_framing PRIVATE snmpkit dpisa)
endif()
