# Sources of the XML writers.
list(APPEND KYRT_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/xml_file.cpp
  ${CMAKE_CURRENT_LIST_DIR}/xml_text.cpp)
