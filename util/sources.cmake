# Sources of the platform utilities.
if(KYRT_POSIX_OS_SERVICES)
  list(APPEND KYRT_SOURCES ${CMAKE_CURRENT_LIST_DIR}/os_services_posix.cpp)
endif()
