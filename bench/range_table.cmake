# The range table against std::map searched with upper_bound.
kyrt_add_benchmark(kyrt_range_table_bench range_table_bench.cpp)
