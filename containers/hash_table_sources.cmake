# Sources of the hash table: the table itself and its hash functions.
list(APPEND KYRT_SOURCES ${CMAKE_CURRENT_LIST_DIR}/hash_table.cpp)
list(APPEND KYRT_SOURCES ${CMAKE_CURRENT_LIST_DIR}/hash_table_functions.cpp)
