# Dependencies point one way: include/kovantis <- KOUtilities <- Network <- the handler folders <-
# the facade (src/Kovantis.cpp). The simulated device sees the public headers and the serialisers
# below the logger only. Reads every #include "..." under include/ and src/ and fails on one that
# points against that order.
#   cmake -DSOURCE_DIR=<repo> [-DINJECT=<file>:<include>] -P include_order.cmake
# INJECT adds one include to a file as if it were written there (the check's own test).

set(handler_folders KODataHandler KOInAppV2 KONotification KORichPush KOInbox KOGeofence)
# The serialisers the simulated device may use: they neither log nor reach the platform.
set(below_logger KOUtilities/KOPropertyListSerialization.h KOUtilities/KOJSONSerialization.h KOUtilities/KOUTF8.h
                 KOUtilities/KOJSONWriter.h
                 KOUtilities/KOPropertyListSerialization.cpp KOUtilities/KOJSONSerialization.cpp)

# The layer of a path relative to the repository (or to src/ for an include): public 0,
# utilities 1, network 2, handlers 3, facade 4, simulated device "sim".
function(layer_of path out)
  string(REGEX REPLACE "^(src|include)/" "" p "${path}")
  if(p STREQUAL "kovantis/Kovantis.h")
    set(l 4)  # public, but the facade's: no handler includes it
  elseif(p MATCHES "^kovantis/")
    set(l 0)
  elseif(p MATCHES "^KOUtilities/" OR p MATCHES "^Platform/[^/]+\.cpp$")
    set(l 1)
  elseif(p MATCHES "^Network/")
    set(l 2)
  elseif(p MATCHES "^Platform/Sim/" OR p MATCHES "^Sim/")
    set(l sim)
  elseif(p STREQUAL "Kovantis.cpp")
    set(l 4)
  else()
    set(l "")
    foreach(h IN LISTS handler_folders)
      if(p MATCHES "^${h}/")
        set(l 3)
      endif()
    endforeach()
  endif()
  set(${out} "${l}" PARENT_SCOPE)
endfunction()

file(GLOB_RECURSE files RELATIVE ${SOURCE_DIR} ${SOURCE_DIR}/include/*.h ${SOURCE_DIR}/src/*.h ${SOURCE_DIR}/src/*.cpp)
set(violations "")
set(checked 0)
foreach(file IN LISTS files)
  file(STRINGS ${SOURCE_DIR}/${file} lines REGEX "^[ \t]*#[ \t]*include[ \t]*\"")
  if(INJECT MATCHES "^${file}:(.+)$")
    list(APPEND lines "#include \"${CMAKE_MATCH_1}\"")
  endif()
  layer_of(${file} from)
  if(from STREQUAL "")
    string(APPEND violations "\n  ${file}: in no layer (add its folder to the order)")
    continue()
  endif()
  get_filename_component(dir ${file} DIRECTORY)
  string(REGEX REPLACE "^(src|include)/?" "" dir "${dir}")
  foreach(line IN LISTS lines)
    string(REGEX REPLACE "^[ \t]*#[ \t]*include[ \t]*\"([^\"]+)\".*" "\\1" target "${line}")
    math(EXPR checked "${checked} + 1")
    if(NOT target MATCHES "/")
      set(target "${dir}/${target}")  # beside the including file
    elseif(target MATCHES "^Sim/")
      set(target "Platform/${target}")
    endif()
    layer_of(${target} to)
    if(to STREQUAL "")
      continue()  # not ours (a third-party header in quotes)
    endif()
    set(ok FALSE)
    if(from STREQUAL "sim")
      list(FIND below_logger ${target} below)
      if(to STREQUAL "sim" OR to STREQUAL "0" OR below GREATER -1)
        set(ok TRUE)
      endif()
    elseif(NOT to STREQUAL "sim" AND to LESS_EQUAL from)
      set(ok TRUE)
      # What the simulated device uses must stay below the logger itself.
      string(REGEX REPLACE "^src/" "" rel "${file}")
      list(FIND below_logger ${rel} fromBelow)
      list(FIND below_logger ${target} toBelow)
      if(fromBelow GREATER -1 AND to STREQUAL "1" AND toBelow EQUAL -1)
        set(ok FALSE)
      endif()
    endif()
    if(NOT ok)
      string(APPEND violations "\n  ${file} includes \"${target}\" (layer ${from} may not see layer ${to})")
    endif()
  endforeach()
endforeach()

if(violations)
  message(FATAL_ERROR "Includes against the dependency order:${violations}")
endif()
list(LENGTH files n)
message(STATUS "include order: ${n} files, ${checked} includes, all pointing down")
