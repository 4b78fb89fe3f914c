# Layers enforced by the build. Every unit (loopstore_unit) may include the
# headers of its own folder's files and of the units it depends on (DEPS,
# followed transitively), nothing else of the tree; the host programs
# (Host/) may include of the storage only its entry points
# (LOOPSTORE_STORAGE_API). So Platform cannot include Storage, the index
# cannot include the cache, and Host cannot reach a storage internal.
#
# How: before a unit compiles, cmake/CheckIncludes.cmake reads the quoted
# includes of its sources and headers and fails the build naming the file,
# the header, the unit that owns it and the rule. A check rather than
# include paths per unit: headers are included from the source root
# ("Storage/Indexes/Ram/ChunkCache.h") and units share folders, so include
# directories cannot tell them apart, and the host must see storage
# internals through the factory's header yet not include them itself.
#
# Ownership of a header: X.h belongs to the unit that compiles X.cpp (a
# generated X.pb.h to the unit of X.proto); a header without a source file
# belongs to the only unit of its folder, or, in a folder of several units,
# to the one that lists it under HEADERS, or else to the unit including it
# that all the others including it depend on (configuration fails when there
# is none).

set(LOOPSTORE_STORAGE_API
  Storage/Server/Factories/LoopRecordingFileFactory.h
  Storage/Server/Factories/StoreCheck.h)

# Called by loopstore_unit and for header-only units.
function(loopstore_register_unit name)
  cmake_parse_arguments(ARG "" "" "SOURCES;HEADERS;DEPS" ${ARGN})
  set(sources "")
  foreach(file ${ARG_SOURCES})
    get_filename_component(abs ${file} ABSOLUTE BASE_DIR ${CMAKE_CURRENT_SOURCE_DIR})
    list(APPEND sources ${abs})
  endforeach()
  set(headers "")
  foreach(file ${ARG_HEADERS})
    get_filename_component(abs ${file} ABSOLUTE BASE_DIR ${CMAKE_CURRENT_SOURCE_DIR})
    list(APPEND headers ${abs})
  endforeach()
  set_property(GLOBAL APPEND PROPERTY LOOPSTORE_UNITS ${name})
  set_target_properties(${name} PROPERTIES
    LOOPSTORE_SOURCES "${sources}"
    LOOPSTORE_HEADERS "${headers}"
    LOOPSTORE_DEPS "${ARG_DEPS}"
    LOOPSTORE_LIST_FILE "${CMAKE_CURRENT_LIST_FILE}")
endfunction()

# The unit and every unit it depends on, transitively.
function(loopstore_unit_closure out unit)
  get_property(units GLOBAL PROPERTY LOOPSTORE_UNITS)
  set(result "")
  set(pending ${unit})
  while(pending)
    list(POP_FRONT pending next)
    if(next IN_LIST result OR NOT next IN_LIST units)
      continue()
    endif()
    list(APPEND result ${next})
    get_target_property(deps ${next} LOOPSTORE_DEPS)
    list(APPEND pending ${deps})
  endwhile()
  set(${out} ${result} PARENT_SCOPE)
endfunction()

# The folders of a unit's sources, relative to the source root.
function(loopstore_unit_folders out unit)
  get_target_property(sources ${unit} LOOPSTORE_SOURCES)
  set(folders "")
  foreach(src ${sources})
    get_filename_component(dir ${src} DIRECTORY)
    list(APPEND folders ${dir})
  endforeach()
  list(REMOVE_DUPLICATES folders)
  set(${out} ${folders} PARENT_SCOPE)
endfunction()

# Maps every header to its unit (variables LOOPSTORE_OWNER_<header id> in the
# caller) and every unit to the headers it owns (LOOPSTORE_OWNED_<unit>).
# Fails the configuration for a header-only header nobody owns in a shared
# folder.
macro(loopstore_assign_headers)
  get_property(all_units GLOBAL PROPERTY LOOPSTORE_UNITS)
  set(shared_folders "")
  set(seen_folders "")
  foreach(unit ${all_units})
    loopstore_unit_folders(folders ${unit})
    foreach(dir ${folders})
      if(dir IN_LIST seen_folders)
        list(APPEND shared_folders ${dir})
      endif()
      list(APPEND seen_folders ${dir})
    endforeach()
  endforeach()
  foreach(unit ${all_units})
    get_target_property(sources ${unit} LOOPSTORE_SOURCES)
    get_target_property(owned ${unit} LOOPSTORE_HEADERS)
    foreach(src ${sources})
      get_filename_component(dir ${src} DIRECTORY)
      get_filename_component(stem ${src} NAME_WE)
      if(src MATCHES "\\.proto$")
        list(APPEND owned ${dir}/${stem}.pb.h ${dir}/${stem}.grpc.pb.h)
      elseif(EXISTS ${dir}/${stem}.h)
        list(APPEND owned ${dir}/${stem}.h)
      endif()
    endforeach()
    loopstore_unit_folders(folders ${unit})
    foreach(dir ${folders})
      if(NOT dir IN_LIST shared_folders)
        file(GLOB headers CONFIGURE_DEPENDS ${dir}/*.h)
        list(APPEND owned ${headers})
      endif()
    endforeach()
    list(REMOVE_DUPLICATES owned)
    set(LOOPSTORE_OWNED_${unit} ${owned})
    foreach(header ${owned})
      file(RELATIVE_PATH rel ${PROJECT_SOURCE_DIR} ${header})
      string(MAKE_C_IDENTIFIER "${rel}" id)
      set(LOOPSTORE_OWNER_${id} ${unit})
    endforeach()
  endforeach()
  list(REMOVE_DUPLICATES shared_folders)
  foreach(dir ${shared_folders})
    file(GLOB headers CONFIGURE_DEPENDS ${dir}/*.h)
    foreach(header ${headers})
      file(RELATIVE_PATH rel ${PROJECT_SOURCE_DIR} ${header})
      string(MAKE_C_IDENTIFIER "${rel}" id)
      string(REGEX REPLACE "\\.h$" ".cpp" source ${header})
      if(NOT LOOPSTORE_OWNER_${id} AND NOT EXISTS ${source})
        loopstore_lowest_includer(owner ${rel})
        if(NOT owner)
          message(FATAL_ERROR "${rel} has no source file and its folder holds several units, "
                              "not one of which the others that include it depend on: list it "
                              "under HEADERS of the unit it belongs to")
        endif()
        list(APPEND LOOPSTORE_OWNED_${owner} ${header})
        set(LOOPSTORE_OWNER_${id} ${owner})
      endif()
    endforeach()
  endforeach()
endmacro()

# `out`: of the units whose files include `header`, the one that all the
# others depend on (a header-only interface belongs to the lowest unit that
# uses it); empty when there is none. Uses the owners known so far.
function(loopstore_lowest_includer out header)
  get_property(all_units GLOBAL PROPERTY LOOPSTORE_UNITS)
  set(includers "")
  foreach(unit ${all_units})
    get_target_property(files ${unit} LOOPSTORE_SOURCES)
    list(APPEND files ${LOOPSTORE_OWNED_${unit}})
    foreach(file ${files})
      if(EXISTS ${file} AND NOT file MATCHES "\\.proto$")
        file(STRINGS ${file} hits REGEX "^[ \t]*#[ \t]*include[ \t]*\"${header}\"")
        if(hits)
          list(APPEND includers ${unit})
          break()
        endif()
      endif()
    endforeach()
  endforeach()
  set(result "")
  foreach(candidate ${includers})
    set(lowest TRUE)
    foreach(unit ${includers})
      loopstore_unit_closure(closure ${unit})
      if(NOT candidate IN_LIST closure)
        set(lowest FALSE)
      endif()
    endforeach()
    if(lowest)
      set(result ${candidate})
    endif()
  endforeach()
  set(${out} ${result} PARENT_SCOPE)
endfunction()

# Writes what the check needs and makes every unit depend on its check.
function(loopstore_check_layers)
  loopstore_assign_headers()
  set(dir ${PROJECT_BINARY_DIR}/layers)
  set(owners "")
  foreach(unit ${all_units})
    foreach(header ${LOOPSTORE_OWNED_${unit}})
      file(RELATIVE_PATH rel ${PROJECT_SOURCE_DIR} ${header})
      string(MAKE_C_IDENTIFIER "${rel}" id)
      string(APPEND owners "set(LOOPSTORE_OWNER_${id} ${unit})\n")
    endforeach()
  endforeach()
  file(CONFIGURE OUTPUT ${dir}/owners.cmake CONTENT "${owners}")
  foreach(unit ${all_units})
    get_target_property(sources ${unit} LOOPSTORE_SOURCES)
    get_target_property(list_file ${unit} LOOPSTORE_LIST_FILE)
    # Generated sources (protocol, embedded files) are not checked.
    list(FILTER sources EXCLUDE REGEX "\\.proto$")
    list(FILTER sources EXCLUDE REGEX "^${PROJECT_BINARY_DIR}/")
    set(files ${sources})
    foreach(header ${LOOPSTORE_OWNED_${unit}})
      if(EXISTS ${header})
        list(APPEND files ${header})
      endif()
    endforeach()
    loopstore_unit_closure(allowed ${unit})
    loopstore_unit_folders(folders ${unit})
    list(GET folders 0 folder)
    file(RELATIVE_PATH folder ${PROJECT_SOURCE_DIR} ${folder})
    file(RELATIVE_PATH list_file ${PROJECT_SOURCE_DIR} ${list_file})
    file(CONFIGURE OUTPUT ${dir}/${unit}.cmake CONTENT
"set(UNIT ${unit})
set(UNIT_FOLDER \"${folder}\")
set(UNIT_LIST_FILE \"${list_file}\")
set(UNIT_FILES \"${files}\")
set(UNIT_ALLOWED \"${allowed}\")
set(STORAGE_API \"${LOOPSTORE_STORAGE_API}\")
set(SOURCE_ROOT \"${PROJECT_SOURCE_DIR}\")
")
    add_custom_command(OUTPUT ${dir}/${unit}.checked
      COMMAND ${CMAKE_COMMAND} -DOWNERS=${dir}/owners.cmake -DUNIT_FILE=${dir}/${unit}.cmake
              -P ${PROJECT_SOURCE_DIR}/cmake/CheckIncludes.cmake
      COMMAND ${CMAKE_COMMAND} -E touch ${dir}/${unit}.checked
      DEPENDS ${files} ${dir}/owners.cmake ${dir}/${unit}.cmake
              ${PROJECT_SOURCE_DIR}/cmake/CheckIncludes.cmake
      COMMENT "Checking the includes of ${unit}"
      VERBATIM)
    add_custom_target(${unit}_includes DEPENDS ${dir}/${unit}.checked)
    add_dependencies(${unit} ${unit}_includes)
  endforeach()
endfunction()
