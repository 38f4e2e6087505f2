# Tests of the paged counter vectors and the CRC-32. zlib is the CRC tests'
# reference only; the library does not link it.
find_package(ZLIB REQUIRED)
kyrt_add_gtest(vector_test SOURCES vector_test.cpp)
kyrt_add_gtest(crc32_test SOURCES crc32_test.cpp)
target_link_libraries(crc32_test PRIVATE ZLIB::ZLIB)
kyrt_add_gtest(crc32_concurrency_test CONCURRENCY SOURCES crc32_concurrency_test.cpp)
target_link_libraries(crc32_concurrency_test PRIVATE ZLIB::ZLIB)
