# The locking hash table against std::unordered_map under std::shared_mutex
# and tbb::concurrent_hash_map (TBB is linked into this benchmark only).
find_package(TBB QUIET)
if(TBB_FOUND)
  kyrt_add_benchmark(kyrt_hash_table_bench hash_table_bench.cpp)
  target_link_libraries(kyrt_hash_table_bench PRIVATE TBB::tbb)
else()
  message(STATUS "TBB not found: the hash table benchmark is not built")
endif()
