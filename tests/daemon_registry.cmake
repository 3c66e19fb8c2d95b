# The daemon's registration table and dispatch, against fake peers and against the real snmpd.
# Both run the daemon, so they exist only when it is built.
if(TARGET varnex2)
  foreach(name daemon_registry_test daemon_snmpd_test)
    if(EXISTS ${CMAKE_CURRENT_SOURCE_DIR}/${name}.cpp)
      add_executable(${name} ${CMAKE_CURRENT_SOURCE_DIR}/${name}.cpp)
      target_link_libraries(${name} PRIVATE vx_testsupport GTest::gtest_main)
      add_dependencies(${name} varnex2)
      gtest_discover_tests(${name} PROPERTIES TIMEOUT 120)
    endif()
  endforeach()
endif()
