# Install rules: the library, the POSIX host adapter, the public headers, a
# CMake package (find_package(kyrt) gives kyrt::kyrt and kyrt::posix_host)
# and pkg-config files (kyrt.pc, kyrt-posix-host.pc).
include(CMakePackageConfigHelpers)

set(KYRT_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/kyrt)

install(TARGETS kyrt kyrt_posix_host
  EXPORT kyrtTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/kyrt
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  FILES_MATCHING PATTERN "*.h")

install(EXPORT kyrtTargets
  NAMESPACE kyrt::
  DESTINATION ${KYRT_CMAKE_DIR})

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/kyrtConfig.cmake.in
  ${PROJECT_BINARY_DIR}/kyrtConfig.cmake
  INSTALL_DESTINATION ${KYRT_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/kyrtConfigVersion.cmake
  VERSION ${PROJECT_VERSION}
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/kyrtConfig.cmake
  ${PROJECT_BINARY_DIR}/kyrtConfigVersion.cmake
  DESTINATION ${KYRT_CMAKE_DIR})

# The pkg-config files locate the prefix from their own folder, so that an
# installed tree can be moved (or installed with --prefix) and still work.
file(RELATIVE_PATH KYRT_PC_RELATIVE_PREFIX "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
foreach(pc kyrt kyrt-posix-host)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/${pc}.pc.in ${PROJECT_BINARY_DIR}/${pc}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${pc}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()
