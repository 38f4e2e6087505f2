# Sources of the option registry, command-line parsing, help and option log.
list(APPEND KYRT_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/command_line.cpp
  ${CMAKE_CURRENT_LIST_DIR}/option_output.cpp
  ${CMAKE_CURRENT_LIST_DIR}/option_table.cpp
  ${CMAKE_CURRENT_LIST_DIR}/parser_release.cpp
  ${CMAKE_CURRENT_LIST_DIR}/registration.cpp
  ${CMAKE_CURRENT_LIST_DIR}/values.cpp)
