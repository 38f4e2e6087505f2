# The CRC-32 against zlib's (linked into this benchmark only).
find_package(ZLIB REQUIRED)
kyrt_add_benchmark(kyrt_crc32_bench crc32_bench.cpp)
target_link_libraries(kyrt_crc32_bench PRIVATE ZLIB::ZLIB)
