# Sets against std::set and a plain bitmap.
kyrt_add_benchmark(kyrt_sets_bench sets_bench.cpp)
