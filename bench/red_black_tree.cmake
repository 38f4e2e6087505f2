# The threaded red-black tree against std::multimap.
kyrt_add_benchmark(kyrt_red_black_tree_bench red_black_tree_bench.cpp)
