# Sources of the logger, the message registry and the fatal exits.
list(APPEND KYRT_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/fatal_exit.cpp
  ${CMAKE_CURRENT_LIST_DIR}/logger.cpp
  ${CMAKE_CURRENT_LIST_DIR}/messages.cpp
  ${CMAKE_CURRENT_LIST_DIR}/record.cpp)
