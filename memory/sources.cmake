# Sources of the memory family: categories and statistics, collectors and
# reserves, the underlying allocator, slabs, large blocks, memory pressure.
list(APPEND KYRT_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/categories.cpp
  ${CMAKE_CURRENT_LIST_DIR}/collector.cpp
  ${CMAKE_CURRENT_LIST_DIR}/large_blocks.cpp
  ${CMAKE_CURRENT_LIST_DIR}/malloc.cpp
  ${CMAKE_CURRENT_LIST_DIR}/pressure.cpp
  ${CMAKE_CURRENT_LIST_DIR}/slabs.cpp
  ${CMAKE_CURRENT_LIST_DIR}/sub_allocator.cpp
  ${CMAKE_CURRENT_LIST_DIR}/swap_rule.cpp)
