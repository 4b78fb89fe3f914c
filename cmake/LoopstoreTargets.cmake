# Helpers shared by every CMakeLists.txt of the tree.
#
# A "unit" is an OBJECT library for one folder of the tree (Platform/Time,
# Storage/Indexes/Ram, ...): it states its own sources and dependencies, and
# the shared libraries loopstore_platform and loopstore are assembled from the
# units' objects (loopstore_shared_library). Tests link the shared libraries.

include(${CMAKE_CURRENT_LIST_DIR}/LoopstoreLayers.cmake)

set(LOOPSTORE_WARNINGS -Wall -Wextra)
# Clang checks the locks declared with Platform/Tools/ThreadAnnotations.h.
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  list(APPEND LOOPSTORE_WARNINGS -Wthread-safety -Wthread-safety-beta)
endif()
# The lock-checking CI tree (make test-locks) turns every warning into an error.
option(LOOPSTORE_WERROR "Treat the project's own warnings as errors" OFF)
if(LOOPSTORE_WERROR)
  list(APPEND LOOPSTORE_WARNINGS -Werror)
endif()

# loopstore_unit(<name> SOURCES <files...> [DEPS <targets...>] [HEADERS <files...>])
# HEADERS: headers without a source file, in a folder shared with other units
# (see LoopstoreLayers.cmake: the unit's includes are checked before it builds).
function(loopstore_unit name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS;HEADERS" ${ARGN})
  add_library(${name} OBJECT ${ARG_SOURCES})
  loopstore_register_unit(${name} SOURCES ${ARG_SOURCES} HEADERS ${ARG_HEADERS} DEPS ${ARG_DEPS})
  target_include_directories(${name} PUBLIC
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
    $<BUILD_INTERFACE:${PROJECT_BINARY_DIR}>)
  target_compile_options(${name} PRIVATE ${LOOPSTORE_WARNINGS})
  if(ARG_DEPS)
    target_link_libraries(${name} PUBLIC ${ARG_DEPS})
  endif()
endfunction()

# OBJECT libraries hand their objects only to the targets that link them
# directly; collect every unit reachable from `deps` so that an executable
# can name just the units it uses.
function(loopstore_expand_units out)
  set(result "")
  set(pending ${ARGN})
  while(pending)
    list(POP_FRONT pending dep)
    if(NOT TARGET ${dep} OR dep IN_LIST result)
      continue()
    endif()
    get_target_property(kind ${dep} TYPE)
    if(NOT kind STREQUAL "OBJECT_LIBRARY" AND NOT kind STREQUAL "INTERFACE_LIBRARY")
      continue()
    endif()
    list(APPEND result ${dep})
    get_target_property(next ${dep} INTERFACE_LINK_LIBRARIES)
    if(next)
      list(APPEND pending ${next})
    endif()
  endwhile()
  set(${out} ${result} PARENT_SCOPE)
endfunction()

# loopstore_test(<name> SOURCES <files...> DEPS <targets...> [LABELS <labels...>])
# One GoogleTest executable; each test case is registered with ctest.
function(loopstore_test name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS;LABELS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_compile_options(${name} PRIVATE ${LOOPSTORE_WARNINGS})
  loopstore_expand_units(units ${ARG_DEPS})
  target_link_libraries(${name} PRIVATE ${ARG_DEPS} ${units} loopstore_testsupport GTest::gmock GTest::gtest_main)
  set(props "")
  if(ARG_LABELS)
    set(props PROPERTIES LABELS "${ARG_LABELS}")
  endif()
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 ${props})
endfunction()

# loopstore_bench(<name> SOURCES <files...> DEPS <targets...>)
function(loopstore_bench name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_compile_options(${name} PRIVATE ${LOOPSTORE_WARNINGS})
  loopstore_expand_units(units ${ARG_DEPS})
  target_link_libraries(${name} PRIVATE ${ARG_DEPS} ${units} benchmark::benchmark)
endfunction()

# loopstore_shared_library(<name> UNITS <units...> DEPS <public deps...>)
function(loopstore_shared_library name)
  cmake_parse_arguments(ARG "" "" "UNITS;DEPS" ${ARGN})
  add_library(${name} SHARED)
  foreach(unit ${ARG_UNITS})
    target_sources(${name} PRIVATE $<TARGET_OBJECTS:${unit}>)
    add_dependencies(${name} ${unit})
  endforeach()
  target_include_directories(${name} PUBLIC
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
    $<BUILD_INTERFACE:${PROJECT_BINARY_DIR}>
    $<INSTALL_INTERFACE:include/loopstore>)
  target_link_libraries(${name} PUBLIC ${ARG_DEPS})
  set_target_properties(${name} PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
endfunction()
