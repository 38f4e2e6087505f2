# Sources of the debug dump channels.
list(APPEND KYRT_SOURCES ${CMAKE_CURRENT_LIST_DIR}/debug_dump.cpp)
