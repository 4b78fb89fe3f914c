# Install the two shared libraries, their headers and a CMake package so that
# a host program can find_package(loopstore) and link loopstore::loopstore.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

install(TARGETS loopstore_platform loopstore EXPORT loopstoreTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

# The host API: the services it is handed, the factory that builds them, the
# protocol messages, time points and logging. The factory's header still
# includes the storage's own headers (its members), so those that it reaches
# are installed with it, and no others.
file(GLOB LOOPSTORE_API_HEADERS RELATIVE ${PROJECT_SOURCE_DIR} CONFIGURE_DEPENDS
  ${PROJECT_SOURCE_DIR}/Platform/Services/*.h
  ${PROJECT_SOURCE_DIR}/Platform/Time/*.h
  ${PROJECT_SOURCE_DIR}/Platform/Logging/*.h)
list(APPEND LOOPSTORE_API_HEADERS Storage/Server/Factories/LoopRecordingFileFactory.h)

# `out`: `headers` and every header of the tree they include, transitively.
function(loopstore_include_closure out)
  set(result "")
  set(pending ${ARGN})
  while(pending)
    list(POP_FRONT pending header)
    if(header IN_LIST result OR NOT EXISTS ${PROJECT_SOURCE_DIR}/${header})
      continue()
    endif()
    list(APPEND result ${header})
    file(STRINGS ${PROJECT_SOURCE_DIR}/${header} lines REGEX "^[ \t]*#[ \t]*include[ \t]*\"")
    foreach(line ${lines})
      string(REGEX REPLACE "^[ \t]*#[ \t]*include[ \t]*\"([^\"]+)\".*" "\\1" next "${line}")
      list(APPEND pending ${next})
    endforeach()
  endwhile()
  set(${out} ${result} PARENT_SCOPE)
endfunction()

loopstore_include_closure(installed_headers ${LOOPSTORE_API_HEADERS})
foreach(header ${installed_headers})
  get_filename_component(dir ${header} DIRECTORY)
  install(FILES ${PROJECT_SOURCE_DIR}/${header} DESTINATION include/loopstore/${dir})
endforeach()
install(FILES ${PROJECT_BINARY_DIR}/Platform/Protocol/Protocol.pb.h
  DESTINATION include/loopstore/Platform/Protocol)

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
