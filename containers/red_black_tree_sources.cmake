# Sources of the threaded red-black tree.
list(APPEND KYRT_SOURCES ${CMAKE_CURRENT_LIST_DIR}/red_black_tree.cpp)
