# Fails when a layer includes a header of a layer above it. Dependencies point one way:
# tools -> hosts/<host> -> hosts -> Fwd -> platform -> framework; two hosts never include each
# other. Run as: cmake -DSOURCE_DIR=<tree> -P CheckLayering.cmake
if(NOT SOURCE_DIR)
  message(FATAL_ERROR "CheckLayering: SOURCE_DIR is not set")
endif()

# The layer of a path relative to the tree ("hosts/sim/SimHost.h" -> "hosts/sim"), empty when
# the path is in no layer.
function(layer_of path out)
  set(_layer "")
  if(path MATCHES "^hosts/([^/]+)/")
    set(_layer "hosts/${CMAKE_MATCH_1}")
  elseif(path MATCHES "^(framework|platform|Fwd|hosts|tools)/")
    set(_layer "${CMAKE_MATCH_1}")
  endif()
  set(${out} "${_layer}" PARENT_SCOPE)
endfunction()

function(rank_of layer out)
  if(layer STREQUAL "framework")
    set(_rank 0)
  elseif(layer STREQUAL "platform")
    set(_rank 1)
  elseif(layer STREQUAL "Fwd")
    set(_rank 2)
  elseif(layer STREQUAL "hosts")
    set(_rank 3)
  elseif(layer MATCHES "^hosts/")
    set(_rank 4)
  else()
    set(_rank 5)
  endif()
  set(${out} ${_rank} PARENT_SCOPE)
endfunction()

file(GLOB_RECURSE _files RELATIVE ${SOURCE_DIR}
     ${SOURCE_DIR}/framework/*.h ${SOURCE_DIR}/framework/*.cpp
     ${SOURCE_DIR}/platform/*.h ${SOURCE_DIR}/platform/*.cpp
     ${SOURCE_DIR}/Fwd/*.h ${SOURCE_DIR}/Fwd/*.cpp
     ${SOURCE_DIR}/hosts/*.h ${SOURCE_DIR}/hosts/*.cpp
     ${SOURCE_DIR}/tools/*.h ${SOURCE_DIR}/tools/*.cpp)
list(SORT _files)

set(_violations "")
foreach(_file ${_files})
  layer_of(${_file} _from)
  rank_of(${_from} _fromRank)
  file(STRINGS ${SOURCE_DIR}/${_file} _includes REGEX "^[ \t]*#[ \t]*include[ \t]*\"[^\"]+\"")
  foreach(_line ${_includes})
    string(REGEX REPLACE "^[ \t]*#[ \t]*include[ \t]*\"([^\"]+)\".*" "\\1" _header "${_line}")
    layer_of(${_header} _to)
    if(_to STREQUAL "" OR _to STREQUAL _from)
      continue()
    endif()
    rank_of(${_to} _toRank)
    if(NOT _toRank LESS _fromRank)
      string(APPEND _violations "  ${_file} (${_from}) includes ${_header} (${_to})\n")
    endif()
  endforeach()
endforeach()

list(LENGTH _files _count)
if(_violations)
  message(FATAL_ERROR "A lower layer includes a higher one:\n${_violations}")
endif()
message(STATUS "Layering holds in ${_count} files")
