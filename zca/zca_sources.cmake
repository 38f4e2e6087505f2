# Sources of the annotation table reader.
list(APPEND KYRT_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/zca_definitions.cpp
  ${CMAKE_CURRENT_LIST_DIR}/zca_section.cpp)
