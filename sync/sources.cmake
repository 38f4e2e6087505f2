list(APPEND KYRT_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/shared_exclusive_lock.cpp
  ${CMAKE_CURRENT_LIST_DIR}/spin_lock.cpp)
