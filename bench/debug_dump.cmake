# The test of a disabled debug dump channel against an inline AND and a
# plain call.
kyrt_add_benchmark(kyrt_debug_dump_bench debug_dump_bench.cpp)
