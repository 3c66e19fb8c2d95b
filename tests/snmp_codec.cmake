# Tests of the SNMP library: containers and their printable forms, the SNMPv1/SMUX and AgentX
# codecs (their rows render records through lib_render.h, shared with the fuzz targets).
foreach(t snmp_container_test snmp_ed_test agentx_ed_test)
  add_executable(${t} ${CMAKE_CURRENT_SOURCE_DIR}/${t}.cpp)
  target_link_libraries(${t} PRIVATE snmpkit vx_testsupport GTest::gtest_main)
  gtest_discover_tests(${t})
endforeach()

# The library's public headers must stay plain C: one generated C11 unit includes them all,
# another calls into the library through them.
file(GLOB SNMPKIT_C_HEADERS RELATIVE ${PROJECT_SOURCE_DIR}/snmp/lib
     ${PROJECT_SOURCE_DIR}/snmp/lib/*.h)
list(SORT SNMPKIT_C_HEADERS)
set(snmp_c_headers_src "")
foreach(h IN LISTS SNMPKIT_C_HEADERS)
  string(APPEND snmp_c_headers_src "#include \"${h}\"\n")
endforeach()
file(CONFIGURE OUTPUT ${CMAKE_CURRENT_BINARY_DIR}/snmp_c_headers.c
     CONTENT "${snmp_c_headers_src}int snmp_c_headers_included(void);\n")
add_executable(snmp_c_abi ${CMAKE_CURRENT_SOURCE_DIR}/snmp_c_abi.c
                          ${CMAKE_CURRENT_BINARY_DIR}/snmp_c_headers.c)
set_target_properties(snmp_c_abi PROPERTIES C_STANDARD 11 C_STANDARD_REQUIRED ON
                                            C_EXTENSIONS OFF LINKER_LANGUAGE CXX)
target_compile_options(snmp_c_abi PRIVATE -Wall -Wextra -Werror -pedantic)
target_link_libraries(snmp_c_abi PRIVATE snmpkit)
add_test(NAME snmp_c_abi COMMAND snmp_c_abi)
