# Sources of the two-lock queue.
list(APPEND KYRT_SOURCES ${CMAKE_CURRENT_LIST_DIR}/queue.cpp)
