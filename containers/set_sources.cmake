# Sources of the sets and multisets.
list(APPEND KYRT_SOURCES ${CMAKE_CURRENT_LIST_DIR}/set.cpp)
list(APPEND KYRT_SOURCES ${CMAKE_CURRENT_LIST_DIR}/set_multiset.cpp)
