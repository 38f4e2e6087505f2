# The annotation section parser against a plain read of the same bytes.
kyrt_add_benchmark(kyrt_zca_bench zca_bench.cpp)
