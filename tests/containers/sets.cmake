# Tests of the sets and multisets.
kyrt_add_gtest(set_test SOURCES set_test.cpp)
