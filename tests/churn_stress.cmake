# Subagents come and go while managers walk a steady one's subtree. The cases load both cores
# for seconds: they run alone, labelled `stress`; bench/churn.sh runs them longer.
include(${CMAKE_SOURCE_DIR}/bench/fwd_dpi_subagent.cmake)
find_package(Threads REQUIRED)
add_executable(churn_stress_test ${CMAKE_CURRENT_SOURCE_DIR}/churn_stress_test.cpp)
target_link_libraries(churn_stress_test PRIVATE vx_testsupport dpisa GTest::gtest_main Threads::Threads)
target_compile_definitions(churn_stress_test PRIVATE STEADY_SUBAGENT_PATH="$<TARGET_FILE:fwd_dpi_subagent>")
add_dependencies(churn_stress_test varnex2 fwd_dpi_subagent)
gtest_discover_tests(churn_stress_test PROPERTIES LABELS stress RUN_SERIAL TRUE TIMEOUT 150)
