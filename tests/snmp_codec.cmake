# Tests of the SNMP library; their rows render records through lib_render.h, as the fuzz targets do.
foreach(t snmp_container_test snmp_ed_test agentx_ed_test)
  add_executable(${t} ${CMAKE_CURRENT_SOURCE_DIR}/${t}.cpp)
  target_link_libraries(${t} PRIVATE snmpkit vx_testsupport GTest::gtest_main)
  gtest_discover_tests(${t})
endforeach()
# The public headers must stay plain C: a generated C11 unit includes them all, and a C
# program calls into the library through them.
file(GLOB headers RELATIVE ${PROJECT_SOURCE_DIR}/snmp/lib ${PROJECT_SOURCE_DIR}/snmp/lib/*.h)
list(SORT headers)
list(TRANSFORM headers REPLACE "(.+)" "#include \"\\1\"\n")
string(CONCAT src ${headers} "int snmp_c_headers_included(void);\n")
file(CONFIGURE OUTPUT ${CMAKE_CURRENT_BINARY_DIR}/snmp_c_headers.c CONTENT "${src}")
add_executable(snmp_c_abi snmp_c_abi.c ${CMAKE_CURRENT_BINARY_DIR}/snmp_c_headers.c)
set_target_properties(snmp_c_abi PROPERTIES C_STANDARD 11 C_STANDARD_REQUIRED ON C_EXTENSIONS OFF
                                            LINKER_LANGUAGE CXX)
target_compile_options(snmp_c_abi PRIVATE -Wall -Wextra -Werror -pedantic)
target_link_libraries(snmp_c_abi PRIVATE snmpkit)
add_test(NAME snmp_c_abi COMMAND snmp_c_abi)
