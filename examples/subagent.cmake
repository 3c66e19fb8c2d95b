# The example DPI subagent: plain C against the DPI library's public header only.
add_executable(example_subagent ${CMAKE_CURRENT_LIST_DIR}/subagent/example_subagent.c)
target_link_libraries(example_subagent PRIVATE dpisa)
# The library is written in C++; its runtime comes in through the C++ linker.
set_target_properties(example_subagent PROPERTIES LINKER_LANGUAGE CXX)
