# The SNMP library's decoders, one target each from one source; records are compared through
# the tests' lib_render.h.
foreach(t snmp_decode_message:SNMP smux_decode_message:SMUX agentx_decode:AGENTX oid_text:OID)
  string(REPLACE ":" ";" t ${t})
  list(GET t 0 name)
  list(GET t 1 which)
  varnex_fuzz_target(${name} snmp_codecs.cpp snmpkit)
  if(TARGET fuzz_${name})
    target_compile_definitions(fuzz_${name} PRIVATE FUZZ_${which})
    target_include_directories(fuzz_${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
  endif()
endforeach()
