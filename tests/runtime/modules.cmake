# Tests of the module table, memory-map scans, back traces and loading.
# Each executable links only what its cases exercise, so that the scans,
# back traces and loading are tested on their own.
kyrt_add_gtest(modules_table_test STATIC SOURCES
  modules_table_test.cpp
  modules_kyrt_range_test.cpp)
kyrt_add_gtest(modules_memory_map_test STATIC SOURCES modules_memory_map_test.cpp)
kyrt_add_gtest(modules_back_trace_test STATIC SOURCES modules_back_trace_test.cpp)
kyrt_add_gtest(modules_concurrency_test STATIC CONCURRENCY SOURCES modules_concurrency_test.cpp)

# A shared object that loads only with lazy binding, for the image tests.
add_library(modules_unresolved_fixture SHARED modules_unresolved_fixture.c)
target_link_options(modules_unresolved_fixture PRIVATE -Wl,-z,lazy)
kyrt_strict_warnings(modules_unresolved_fixture)

kyrt_add_gtest(modules_image_test STATIC SOURCES modules_image_test.cpp)
add_dependencies(modules_image_test modules_unresolved_fixture)
target_compile_definitions(modules_image_test PRIVATE
  KYRT_TEST_UNRESOLVED_IMAGE="$<TARGET_FILE:modules_unresolved_fixture>")
