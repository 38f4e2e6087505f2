# kyrtctl and its controller library. kyrtctl runs as a separate process,
# found through the path of its target.
if(TARGET kyrtctl)
  kyrt_add_gtest(kyrtctl_test STATIC SOURCES kyrtctl_test.cpp)
  add_dependencies(kyrtctl_test kyrtctl)
  target_compile_definitions(kyrtctl_test PRIVATE KYRT_TEST_KYRTCTL="$<TARGET_FILE:kyrtctl>")

  kyrt_add_gtest(kyrtctl_controller_test STATIC SOURCES kyrtctl_controller_test.cpp)
  target_link_libraries(kyrtctl_controller_test PRIVATE kyrt_controller)
endif()
