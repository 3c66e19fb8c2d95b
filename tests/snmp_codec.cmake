# Tests of the SNMP library's codec: BER primitives, SNMPv1 PDUs and messages, SMUX PDUs.
foreach(t snmp_asn1_test snmp_ed_test)
  add_executable(${t} ${CMAKE_CURRENT_SOURCE_DIR}/${t}.cpp)
  target_link_libraries(${t} PRIVATE snmpkit vx_testsupport GTest::gtest_main)
  gtest_discover_tests(${t})
endforeach()

# The library's public headers must stay plain C. One C11 translation unit includes every
# header of the folder (generated, so a new header is covered without touching this file);
# another calls into the library through them.
file(GLOB SNMPKIT_C_HEADERS RELATIVE ${PROJECT_SOURCE_DIR}/snmp/lib
     ${PROJECT_SOURCE_DIR}/snmp/lib/*.h)
list(SORT SNMPKIT_C_HEADERS)
set(snmp_c_headers_src "/* Generated: includes every public header of the SNMP library. */\n")
foreach(h IN LISTS SNMPKIT_C_HEADERS)
  string(APPEND snmp_c_headers_src "#include \"${h}\"\n")
endforeach()
string(APPEND snmp_c_headers_src "int snmp_c_headers_included(void);\n"
                                 "int snmp_c_headers_included(void) { return 1; }\n")
file(CONFIGURE OUTPUT ${CMAKE_CURRENT_BINARY_DIR}/snmp_c_headers.c
     CONTENT "${snmp_c_headers_src}")
add_executable(snmp_c_abi ${CMAKE_CURRENT_SOURCE_DIR}/snmp_c_abi.c
                          ${CMAKE_CURRENT_BINARY_DIR}/snmp_c_headers.c)
set_target_properties(snmp_c_abi PROPERTIES C_STANDARD 11 C_STANDARD_REQUIRED ON
                                            C_EXTENSIONS OFF LINKER_LANGUAGE CXX)
target_compile_options(snmp_c_abi PRIVATE -Wall -Wextra -Werror -pedantic)
target_link_libraries(snmp_c_abi PRIVATE snmpkit)
add_test(NAME snmp_c_abi COMMAND snmp_c_abi)
