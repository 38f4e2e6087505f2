# Sources of the runtime frame: start-up, hooks, atomics, system information.
list(APPEND KYRT_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/atomics.cpp
  ${CMAKE_CURRENT_LIST_DIR}/hooks.cpp
  ${CMAKE_CURRENT_LIST_DIR}/proc_paths.cpp
  ${CMAKE_CURRENT_LIST_DIR}/startup.cpp
  ${CMAKE_CURRENT_LIST_DIR}/system_information.cpp)
