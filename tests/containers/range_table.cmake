# Tests of the range table. The unit tests link the static archive: they
# reach the block geometry and the shift-xor hash functions, and look at the
# allocator's slab headers to see where the table's blocks come from.
kyrt_add_gtest(range_table_test STATIC SOURCES range_table_test.cpp)
kyrt_add_gtest(range_table_differential_test SOURCES range_table_differential_test.cpp)
