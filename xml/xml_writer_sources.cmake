# Sources of the XML writer object.
list(APPEND KYRT_SOURCES ${CMAKE_CURRENT_LIST_DIR}/xml_writer.cpp)
