# The runtime library.
#
# The sources are compiled once as an object library, with hidden
# visibility and position-independent code, and linked into:
#   - kyrt         libkyrt.so, the library tools link against; only the
#                  names marked KYRT_API are exported;
#   - kyrt_static  a static archive of the same objects for the test suite,
#                  which reaches internal test seams through it. Not
#                  installed.
# The POSIX host adapter is a separate static library, kyrt_posix_host.

set(KYRT_ROOT ${PROJECT_SOURCE_DIR})

# Each family lists its own sources in <folder>/<...>sources.cmake.
set(KYRT_SOURCES)
file(GLOB KYRT_SOURCE_LISTS CONFIGURE_DEPENDS
  ${KYRT_ROOT}/runtime/*sources.cmake ${KYRT_ROOT}/sync/*sources.cmake
  ${KYRT_ROOT}/memory/*sources.cmake ${KYRT_ROOT}/util/*sources.cmake
  ${KYRT_ROOT}/xml/*sources.cmake ${KYRT_ROOT}/log/*sources.cmake
  ${KYRT_ROOT}/options/*sources.cmake ${KYRT_ROOT}/containers/*sources.cmake
  ${KYRT_ROOT}/collector/*sources.cmake ${KYRT_ROOT}/zca/*sources.cmake)
foreach(source_list ${KYRT_SOURCE_LISTS})
  include(${source_list})
endforeach()

add_library(kyrt_objects OBJECT ${KYRT_SOURCES})
set_target_properties(kyrt_objects PROPERTIES
  POSITION_INDEPENDENT_CODE ON
  C_VISIBILITY_PRESET hidden
  CXX_VISIBILITY_PRESET hidden
  VISIBILITY_INLINES_HIDDEN ON)
target_include_directories(kyrt_objects
  PUBLIC $<BUILD_INTERFACE:${KYRT_ROOT}/include>
  PRIVATE ${KYRT_ROOT})
# -fno-strict-aliasing: lock records are read through a second width (the
# shared-exclusive lock's state and reader count as one 64-bit word).
target_compile_options(kyrt_objects PRIVATE -fno-strict-aliasing)
target_compile_definitions(kyrt_objects PRIVATE
  KYRT_POSIX_OS_SERVICES=$<BOOL:${KYRT_POSIX_OS_SERVICES}>)
kyrt_strict_warnings(kyrt_objects)

add_library(kyrt SHARED $<TARGET_OBJECTS:kyrt_objects>)
add_library(kyrt::kyrt ALIAS kyrt)
set_target_properties(kyrt PROPERTIES
  VERSION ${PROJECT_VERSION}
  SOVERSION ${PROJECT_VERSION_MAJOR}
  EXPORT_NAME kyrt)
target_include_directories(kyrt PUBLIC
  $<BUILD_INTERFACE:${KYRT_ROOT}/include>
  $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
target_link_libraries(kyrt PRIVATE Threads::Threads ${CMAKE_DL_LIBS})
# Calls between the library's own functions bind inside the library: the
# lock paths call each other directly rather than through the procedure
# linkage table. Tools cannot interpose the runtime's functions.
target_link_options(kyrt PRIVATE -Wl,-Bsymbolic-functions
  -Wl,--version-script=${KYRT_ROOT}/cmake/kyrt.map)
set_property(TARGET kyrt APPEND PROPERTY LINK_DEPENDS ${KYRT_ROOT}/cmake/kyrt.map)
if(KYRT_POSIX_OS_SERVICES AND NOT KYRT_SANITIZE AND NOT KYRT_FUZZ)
  # Everything the library needs is defined inside it or in its
  # dependencies; a host framework build leaves the directory services open.
  target_link_options(kyrt PRIVATE -Wl,--no-undefined)
endif()

add_library(kyrt_static STATIC $<TARGET_OBJECTS:kyrt_objects>)
target_include_directories(kyrt_static PUBLIC ${KYRT_ROOT}/include ${KYRT_ROOT})
target_link_libraries(kyrt_static PUBLIC Threads::Threads ${CMAKE_DL_LIBS})

# The POSIX host adapter. Its objects are kept apart so that tests linking
# the static archive can take them without pulling in libkyrt.so.
add_library(kyrt_posix_host_objects OBJECT ${KYRT_ROOT}/runtime/posix_host/posix_host.cpp)
set_target_properties(kyrt_posix_host_objects PROPERTIES POSITION_INDEPENDENT_CODE ON)
target_include_directories(kyrt_posix_host_objects PRIVATE ${KYRT_ROOT}/include)
kyrt_strict_warnings(kyrt_posix_host_objects)

add_library(kyrt_posix_host STATIC $<TARGET_OBJECTS:kyrt_posix_host_objects>)
add_library(kyrt::posix_host ALIAS kyrt_posix_host)
set_target_properties(kyrt_posix_host PROPERTIES
  OUTPUT_NAME kyrt-posix-host
  EXPORT_NAME posix_host)
target_link_libraries(kyrt_posix_host PUBLIC kyrt Threads::Threads)
