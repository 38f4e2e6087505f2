# Debug dump channels. The unit cases link the static archive to read and
# set the enabled mask directly.
kyrt_add_gtest(debug_dump_test STATIC SOURCES debug_dump_test.cpp)
kyrt_add_gtest(debug_dump_concurrency_test CONCURRENCY SOURCES debug_dump_concurrency_test.cpp)
