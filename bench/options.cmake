# Command-line parsing against the C library's getopt_long_only.
kyrt_add_benchmark(kyrt_options_bench options_bench.cpp)
