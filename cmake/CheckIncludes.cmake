# Checks the quoted includes of one unit against the layers (see
# LoopstoreLayers.cmake). Run by the build:
#   cmake -DOWNERS=<owners.cmake> -DUNIT_FILE=<unit.cmake> -P CheckIncludes.cmake
cmake_minimum_required(VERSION 3.25)
include(${OWNERS})
include(${UNIT_FILE})

# Why a unit of `folder` may not include `header`, beyond "not a dependency".
function(layer_rule out folder header)
  set(rule "a unit includes only the headers of the units it depends on")
  if(folder MATCHES "^Platform/" AND header MATCHES "^(Storage|Host)/")
    set(rule "Platform knows nothing of Storage or Host")
  elseif(folder MATCHES "^Storage/" AND header MATCHES "^Host/")
    set(rule "the storage knows nothing of the host programs")
  elseif(UNIT STREQUAL "storage_index" OR UNIT STREQUAL "storage_ram")
    set(rule "the index knows nothing of the cache or the service above it")
  elseif(UNIT STREQUAL "storage_cache")
    set(rule "the cache knows nothing of the index")
  endif()
  set(${out} "${rule}" PARENT_SCOPE)
endfunction()

list(JOIN STORAGE_API ", " api)
set(errors "")
foreach(file IN LISTS UNIT_FILES)
  file(RELATIVE_PATH rel ${SOURCE_ROOT} ${file})
  file(STRINGS ${file} lines REGEX "^[ \t]*#[ \t]*include[ \t]*\"[^\"]+\"")
  foreach(line IN LISTS lines)
    string(REGEX REPLACE "^[ \t]*#[ \t]*include[ \t]*\"([^\"]+)\".*" "\\1" header "${line}")
    string(MAKE_C_IDENTIFIER "${header}" id)
    set(owner "${LOOPSTORE_OWNER_${id}}")
    if(UNIT_FOLDER MATCHES "^Host/" AND header MATCHES "^Storage/"
       AND NOT header IN_LIST STORAGE_API)
      string(CONCAT error "${rel} includes \"${header}\", a storage internal: the host "
                          "programs talk to the storage only through its API (${api})")
      list(APPEND errors "${error}")
    elseif(owner AND NOT owner IN_LIST UNIT_ALLOWED)
      layer_rule(rule "${UNIT_FOLDER}" "${header}")
      string(CONCAT error "${rel} includes \"${header}\" of unit ${owner}, which unit ${UNIT} "
                          "does not depend on: ${rule} (dependencies: DEPS of ${UNIT} in "
                          "${UNIT_LIST_FILE})")
      list(APPEND errors "${error}")
    endif()
  endforeach()
endforeach()

if(errors)
  list(JOIN errors "\n  " text)
  message(FATAL_ERROR "Include crossing a layer:\n  ${text}")
endif()
