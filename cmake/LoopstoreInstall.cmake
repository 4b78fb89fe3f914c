# Install the two shared libraries, their headers and a CMake package so that
# a host program can find_package(loopstore) and link loopstore::loopstore.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

install(TARGETS loopstore_platform loopstore EXPORT loopstoreTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

foreach(dir Platform Storage)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/${dir}/ DESTINATION include/loopstore/${dir}
    FILES_MATCHING PATTERN "*.h")
  install(DIRECTORY ${PROJECT_BINARY_DIR}/${dir}/ DESTINATION include/loopstore/${dir}
    FILES_MATCHING PATTERN "*.pb.h" PATTERN "CMakeFiles" EXCLUDE)
endforeach()

install(EXPORT loopstoreTargets NAMESPACE loopstore::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/loopstore)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/loopstoreConfig.cmake.in
  ${PROJECT_BINARY_DIR}/loopstoreConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/loopstore)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/loopstoreConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/loopstoreConfig.cmake
  ${PROJECT_BINARY_DIR}/loopstoreConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/loopstore)
