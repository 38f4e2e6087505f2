# Sources of the paged counter vectors and the CRC-32. The CRC is Boost's
# header-only engine: configuration fails early when the headers are missing.
find_package(Boost 1.66 REQUIRED)
list(APPEND KYRT_SOURCES ${CMAKE_CURRENT_LIST_DIR}/crc32.cpp)
list(APPEND KYRT_SOURCES ${CMAKE_CURRENT_LIST_DIR}/vector.cpp)
set_property(SOURCE ${CMAKE_CURRENT_LIST_DIR}/crc32.cpp APPEND PROPERTY
  INCLUDE_DIRECTORIES ${Boost_INCLUDE_DIRS})
