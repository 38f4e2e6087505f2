# Tests of the option registry, command-line parsing, help and option log.
kyrt_add_gtest(options_test SOURCES
  option_registry_test.cpp
  command_line_test.cpp
  help_and_log_test.cpp)
# The registry's internal state and its reset, through the static archive.
kyrt_add_gtest(options_internal_test STATIC SOURCES option_internals_test.cpp)
kyrt_add_gtest(options_concurrency_test CONCURRENCY SOURCES options_concurrency_test.cpp)
