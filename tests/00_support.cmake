# Helpers for tests that run the daemon or the master agent in private namespaces; the
# fragment sorts first so that every other fragment can link vx_testsupport.
add_library(vx_testsupport STATIC ${CMAKE_CURRENT_SOURCE_DIR}/support/vx_testsupport.cpp
                                  ${CMAKE_CURRENT_SOURCE_DIR}/support/vx_peers.cpp)
target_include_directories(vx_testsupport PUBLIC ${CMAKE_CURRENT_SOURCE_DIR}/support)
target_link_libraries(vx_testsupport PUBLIC dpisa)
target_compile_definitions(vx_testsupport PRIVATE VARNEX2_PATH="$<TARGET_FILE:varnex2>")
