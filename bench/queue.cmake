# The two-lock queue against std::mutex + std::deque and
# tbb::concurrent_queue (TBB is linked into this benchmark only).
find_package(TBB QUIET)
if(TBB_FOUND)
  kyrt_add_benchmark(kyrt_queue_bench queue_bench.cpp)
  target_link_libraries(kyrt_queue_bench PRIVATE TBB::tbb)
else()
  message(STATUS "TBB not found: the queue benchmark is not built")
endif()
