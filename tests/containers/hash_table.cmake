# Tests of the hash table. The unit tests link the static archive: they reach
# the default and shift-xor hash functions, and look at the allocator's slab
# headers to see where the table's blocks come from.
kyrt_add_gtest(hash_table_test STATIC SOURCES
  hash_table_test.cpp
  hash_table_scan_test.cpp)
kyrt_add_gtest(hash_table_differential_test SOURCES hash_table_differential_test.cpp)
kyrt_add_gtest(hash_table_concurrency_test CONCURRENCY SOURCES hash_table_concurrency_test.cpp)
