# The SNMP message and SMUX PDU decoders, each with a decode-encode-decode property. The codec
# and container sources are compiled into each target rather than linked from snmpkit, so
# that libFuzzer's coverage instrumentation reaches the code under test.
if(TARGET snmpkit)
  set(SNMP_FUZZ_LIB_DIR ${PROJECT_SOURCE_DIR}/snmp/lib)
  set(SNMP_FUZZ_CODEC ${SNMP_FUZZ_LIB_DIR}/snmp_container.cpp ${SNMP_FUZZ_LIB_DIR}/snmp_asn1.cpp
                      ${SNMP_FUZZ_LIB_DIR}/snmp_ed.cpp ${SNMP_FUZZ_LIB_DIR}/smux_ed.cpp)
  foreach(pair snmp_decode_message:snmp_decode smux_decode_message:smux_decode)
    string(REPLACE ":" ";" pair ${pair})
    list(GET pair 0 name)
    list(GET pair 1 source)
    add_executable(fuzz_${name} ${CMAKE_CURRENT_LIST_DIR}/${source}.cpp ${SNMP_FUZZ_CODEC})
    target_include_directories(fuzz_${name} PRIVATE ${SNMP_FUZZ_LIB_DIR})
    target_compile_options(fuzz_${name} PRIVATE -fsanitize=fuzzer)
    target_link_options(fuzz_${name} PRIVATE -fsanitize=fuzzer)
  endforeach()
endif()
