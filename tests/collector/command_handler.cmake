# The collector command channel. The unit cases drive handler objects of
# their own and the process-wide channel through its C entry points; the
# end-to-end cases run kyrtctl as the controller, a real second process.
kyrt_add_gtest(command_handler_test STATIC SOURCES
  command_handler_test.cpp
  command_registration_test.cpp)

if(TARGET kyrtctl)
  kyrt_add_gtest(command_channel_test STATIC CONCURRENCY SOURCES command_channel_test.cpp)
  add_dependencies(command_channel_test kyrtctl)
  target_compile_definitions(command_channel_test PRIVATE
    KYRT_TEST_KYRTCTL="$<TARGET_FILE:kyrtctl>")
endif()
