# Sources of the collector command channel.
list(APPEND KYRT_SOURCES ${CMAKE_CURRENT_LIST_DIR}/channel_system_calls.cpp)
list(APPEND KYRT_SOURCES ${CMAKE_CURRENT_LIST_DIR}/command_handler.cpp)
list(APPEND KYRT_SOURCES ${CMAKE_CURRENT_LIST_DIR}/command_service.cpp)
list(APPEND KYRT_SOURCES ${CMAKE_CURRENT_LIST_DIR}/safe_open.cpp)
