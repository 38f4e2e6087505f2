# Sources of the range table.
list(APPEND KYRT_SOURCES ${CMAKE_CURRENT_LIST_DIR}/range_table.cpp)
