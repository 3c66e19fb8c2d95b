# The daemon's registration table and dispatch, against fake peers and against the real snmpd.
# Both run the daemon, so they exist only when it is built.
if(TARGET varnex2)
  foreach(name daemon_registry_test daemon_snmpd_test)
    if(EXISTS ${CMAKE_CURRENT_SOURCE_DIR}/${name}.cpp)
      add_executable(${name} ${CMAKE_CURRENT_SOURCE_DIR}/${name}.cpp)
      target_link_libraries(${name} PRIVATE vx_testsupport GTest::gtest_main)
      add_dependencies(${name} varnex2)
      gtest_discover_tests(${name} PROPERTIES TIMEOUT 120)
      if(name STREQUAL "daemon_registry_test")
        # The table is also tested in-process, with the daemon's own modules linked in and
        # its entry point renamed out of the way of the test runner's.
        set(daemon_dir ${CMAKE_SOURCE_DIR}/snmp/daemon)
        target_sources(${name} PRIVATE ${daemon_dir}/varnex2.cpp ${daemon_dir}/registry.cpp
                                       ${daemon_dir}/forward.cpp)
        target_include_directories(${name} PRIVATE ${daemon_dir})
        target_compile_definitions(${name} PRIVATE main=varnex2_main)
        target_compile_options(${name} PRIVATE -Wno-missing-declarations)
        target_link_libraries(${name} PRIVATE snmpkit dpisa)
      endif()
    endif()
  endforeach()
endif()
