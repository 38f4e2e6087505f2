# The bundled allocation workload run bare, under kyheap and under
# heaptrack: each benchmark iteration is one whole run of the program, and
# the table sets kyheap's wall time against heaptrack's and against the
# bare run.
find_program(KYRT_HEAPTRACK heaptrack)
if(TARGET kyheap AND TARGET heap_workload AND KYRT_HEAPTRACK)
  kyrt_add_benchmark(kyrt_kyheap_bench kyheap_bench.cpp)
  add_dependencies(kyrt_kyheap_bench kyheap kyheap_tool heap_workload)
  target_compile_definitions(kyrt_kyheap_bench PRIVATE
    KYHEAP_BENCH_LAUNCHER="$<TARGET_FILE:kyheap>"
    KYHEAP_BENCH_WORKLOAD="$<TARGET_FILE:heap_workload>"
    KYHEAP_BENCH_HEAPTRACK="${KYRT_HEAPTRACK}")
else()
  message(STATUS "heaptrack not found: the kyheap benchmark is not built")
endif()
