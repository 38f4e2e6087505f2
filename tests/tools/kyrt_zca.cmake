# Tests of kyrt-zca on the annotation test modules of tests/zca (a shared
# library, an executable, an object file), on damaged copies of them made at
# test time, and on its command line.
if(TARGET kyrt-zca)
  kyrt_add_gtest(kyrt_zca_test SOURCES kyrt_zca_test.cpp kyrt_zca_damaged_test.cpp)
  target_link_libraries(kyrt_zca_test PRIVATE zca_fixture_module)
  add_dependencies(kyrt_zca_test kyrt-zca zca_fixture_program zca_fixture_object)
  target_compile_definitions(kyrt_zca_test PRIVATE
    KYRT_ZCA_TOOL="$<TARGET_FILE:kyrt-zca>"
    KYRT_ZCA_FIXTURE_MODULE="$<TARGET_FILE:zca_fixture_module>"
    KYRT_ZCA_FIXTURE_PROGRAM="$<TARGET_FILE:zca_fixture_program>"
    KYRT_ZCA_FIXTURE_OBJECT="$<TARGET_OBJECTS:zca_fixture_object>"
    KYRT_ZCA_MODULE_WITHOUT_SECTION="$<TARGET_FILE:kyrt>")
endif()
