# Sources of the platform utilities.
if(KYRT_POSIX_OS_SERVICES)
  list(APPEND KYRT_SOURCES ${CMAKE_CURRENT_LIST_DIR}/os_services_posix.cpp)
endif()
list(APPEND KYRT_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/c_strings.cpp
  ${CMAKE_CURRENT_LIST_DIR}/counted_string.cpp
  ${CMAKE_CURRENT_LIST_DIR}/cpu.cpp
  ${CMAKE_CURRENT_LIST_DIR}/environment.cpp
  ${CMAKE_CURRENT_LIST_DIR}/folders.cpp
  ${CMAKE_CURRENT_LIST_DIR}/format.cpp
  ${CMAKE_CURRENT_LIST_DIR}/lock_files.cpp
  ${CMAKE_CURRENT_LIST_DIR}/number_list.cpp
  ${CMAKE_CURRENT_LIST_DIR}/page_size.cpp
  ${CMAKE_CURRENT_LIST_DIR}/paths.cpp
  ${CMAKE_CURRENT_LIST_DIR}/processes.cpp
  ${CMAKE_CURRENT_LIST_DIR}/streams.cpp
  ${CMAKE_CURRENT_LIST_DIR}/text_conversion.cpp
  ${CMAKE_CURRENT_LIST_DIR}/timestamp.cpp)
