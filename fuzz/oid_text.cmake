# OID text to container and back.
if(TARGET snmpkit)
  add_executable(fuzz_oid_text ${CMAKE_CURRENT_LIST_DIR}/oid_text.cpp)
  target_compile_options(fuzz_oid_text PRIVATE -fsanitize=fuzzer)
  target_link_options(fuzz_oid_text PRIVATE -fsanitize=fuzzer)
  target_link_libraries(fuzz_oid_text PRIVATE snmpkit)
endif()
