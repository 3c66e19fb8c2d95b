# The forwarding-path benchmark's minimal DPI subagent. The churn stress test runs it too, as
# its steady subagent, in every build the tests are made in (sanitizer builds included, which
# have no bench/): both include this file, and the first to do so defines the target.
if(TARGET fwd_dpi_subagent)
  return()
endif()
add_executable(fwd_dpi_subagent ${CMAKE_CURRENT_LIST_DIR}/fwd_dpi_subagent.c)
target_link_libraries(fwd_dpi_subagent PRIVATE dpisa)
# The library is written in C++; its runtime comes in through the C++ linker.
# bench/forward_path.sh looks for it under bench/ of the build directory.
set_target_properties(fwd_dpi_subagent PROPERTIES LINKER_LANGUAGE CXX
                      RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bench)
