# Sources of the module table, memory-map scans, back traces and loading.
list(APPEND KYRT_SOURCES ${CMAKE_CURRENT_LIST_DIR}/back_trace.cpp)
list(APPEND KYRT_SOURCES ${CMAKE_CURRENT_LIST_DIR}/image_loading.cpp)
list(APPEND KYRT_SOURCES ${CMAKE_CURRENT_LIST_DIR}/memory_map.cpp)
list(APPEND KYRT_SOURCES ${CMAKE_CURRENT_LIST_DIR}/module_arch.cpp)
list(APPEND KYRT_SOURCES ${CMAKE_CURRENT_LIST_DIR}/module_table.cpp)
