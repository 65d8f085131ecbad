# Dependencies point one way: include/kovantis <- KOUtilities <- Network <- the handler folders <-
# the facade (src/Kovantis.cpp). Among the handler folders: KODataHandler <- KOInbox, KOGeofence,
# KORichPush (peers: none includes another) <- KOInAppV2 <- KONotification <- KOPrivacy. Reads every
# #include "..." of the SDK and of the code around it, and fails on one that points against that
# order or past what the including file's role allows:
#   the simulated device (src/Platform/Sim/)  public headers and the serialisers below the logger;
#   the test harness (testing/) and the sample app (examples/)  public headers only: the SDK's
#     (include/kovantis/), the simulated device's (all of src/Platform/Sim/*.h are installed), the
#     emulator's (tools/emulator/include/) and the harness's (testing/include/); the sample app
#     also its own (its seeds);
#   the emulator library (tools/emulator/)  its own files and its public header, nothing of the SDK:
#     the SDK reaches it over sockets only;
#   the emulator program (tools/emulator/main.cpp, KOEmulatorPreview.cpp)  the emulator's public
#     header, and the SDK's internals and the simulated device, with which it draws previews;
#   the C interface (src/C/)  the public headers (Kovantis.h included) and its own files; its
#     simulated device (src/C/Sim/) also the simulated device's and the emulator's public headers;
#   the benchmarks (bench/)  what the tests see: the SDK's internals, the simulated device, the
#     emulator's public header and the tests' support; not the emulator's own files.
#   cmake -DSOURCE_DIR=<repo> [-DINJECT=<file>:<include>] -P include_order.cmake
cmake_minimum_required(VERSION 3.25)
# INJECT adds one include to a file as if it were written there (the check's own test).

# Rank of each handler folder; folders of one rank are peers and may not include each other.
set(handler_ranks KODataHandler=3 KOInbox=4 KOGeofence=4 KORichPush=4 KOInAppV2=5 KONotification=6 KOPrivacy=7)
set(facade_rank 8)
# The serialisers the simulated device may use: they neither log nor reach the platform.
set(below_logger src/KOUtilities/KOPropertyListSerialization.h src/KOUtilities/KOJSONSerialization.h
                 src/KOUtilities/KOUTF8.h src/KOUtilities/KOJSONWriter.h
                 src/KOUtilities/KOPropertyListSerialization.cpp src/KOUtilities/KOJSONSerialization.cpp)
set(emulator_program tools/emulator/main.cpp tools/emulator/KOEmulatorPreview.cpp)
# Where a quoted include is looked for after the including file's own folder (the include paths
# the targets are built with).
set(search_dirs include src src/Platform tools/emulator/include testing/include tests/support)

# The role of a file of the repository: an SDK layer as a number (public 0, utilities 1, network 2,
# handlers 3 to 7, facade 8), or a name. Empty: not ours to check.
function(role_of path out)
  set(r "")
  if(path STREQUAL "include/kovantis/Kovantis.h")
    set(r ${facade_rank})  # public, but the facade's: no handler includes it
  elseif(path MATCHES "^include/kovantis/[^/]+$")
    set(r 0)
  elseif(path MATCHES "^src/KOUtilities/" OR path MATCHES "^src/Platform/[^/]+\\.cpp$")
    set(r 1)
  elseif(path MATCHES "^src/Network/")
    set(r 2)
  elseif(path MATCHES "^src/Platform/Sim/")
    set(r sim)
  elseif(path MATCHES "^src/C/Sim/")
    set(r c_sim)
  elseif(path MATCHES "^src/C/")
    set(r c_binding)
  elseif(path MATCHES "^src/[^/]+$")
    set(r ${facade_rank})
  elseif(path MATCHES "^src/([^/]+)/")
    set(folder ${CMAKE_MATCH_1})
    foreach(entry IN LISTS handler_ranks)
      if(entry MATCHES "^${folder}=([0-9]+)$")
        set(r ${CMAKE_MATCH_1})
      endif()
    endforeach()
  elseif(path MATCHES "^tools/emulator/include/")
    set(r emulator_public)
  elseif(path IN_LIST emulator_program)
    set(r emulator_program)
  elseif(path MATCHES "^tools/emulator/")
    set(r emulator)
  elseif(path MATCHES "^testing/include/")
    set(r harness_public)
  elseif(path MATCHES "^testing/")
    set(r harness)
  elseif(path MATCHES "^examples/")
    set(r sample)
  elseif(path MATCHES "^bench/")
    set(r bench)
  elseif(path MATCHES "^tests/support/")
    set(r test_support)
  endif()
  set(${out} "${r}" PARENT_SCOPE)
endfunction()

# Whether a file of role `from` may include `target` of role `to`.
function(may_include file from target to out)
  set(public 0 ${facade_rank} sim emulator_public harness_public)  # what a host may include
  set(ok FALSE)
  if(from MATCHES "^[0-9]+$")
    if(to MATCHES "^[0-9]+$" AND to LESS_EQUAL from)
      set(ok TRUE)
      # Handler folders of one rank are peers: neither sees the other.
      string(REGEX MATCH "^src/[^/]+" fromFolder "${file}")
      string(REGEX MATCH "^src/[^/]+" toFolder "${target}")
      if(to EQUAL from AND to GREATER_EQUAL 3 AND to LESS facade_rank AND NOT fromFolder STREQUAL toFolder)
        set(ok FALSE)
      endif()
      # What the simulated device uses must stay below the logger itself.
      list(FIND below_logger ${file} fromBelow)
      list(FIND below_logger ${target} toBelow)
      if(fromBelow GREATER -1 AND to STREQUAL "1" AND toBelow EQUAL -1)
        set(ok FALSE)
      endif()
    endif()
  elseif(from STREQUAL "sim")
    list(FIND below_logger ${target} below)
    if(to STREQUAL "sim" OR to STREQUAL "0" OR below GREATER -1)
      set(ok TRUE)
    endif()
  elseif(from STREQUAL "c_binding")
    if(to STREQUAL "0" OR to STREQUAL "${facade_rank}" OR to STREQUAL "c_binding")
      set(ok TRUE)
    endif()
  elseif(from STREQUAL "c_sim")
    if(to MATCHES "^(0|${facade_rank}|c_binding|c_sim|sim|emulator_public)$")
      set(ok TRUE)
    endif()
  elseif(from STREQUAL "emulator_public")
    if(to STREQUAL "emulator_public")
      set(ok TRUE)
    endif()
  elseif(from STREQUAL "emulator")
    if(to STREQUAL "emulator" OR to STREQUAL "emulator_public")
      set(ok TRUE)
    endif()
  elseif(from STREQUAL "emulator_program")
    if(to MATCHES "^[0-9]+$" OR to STREQUAL "sim" OR to STREQUAL "emulator_public")
      set(ok TRUE)
    endif()
  elseif(from MATCHES "^(harness|harness_public|sample)$")
    if(to IN_LIST public OR (from STREQUAL "sample" AND to STREQUAL "sample"))
      set(ok TRUE)
    endif()
  elseif(from STREQUAL "bench")
    if(NOT to STREQUAL "emulator" AND NOT to STREQUAL "harness")
      set(ok TRUE)
    endif()
  endif()
  set(${out} ${ok} PARENT_SCOPE)
endfunction()

file(GLOB_RECURSE files RELATIVE ${SOURCE_DIR}
     ${SOURCE_DIR}/include/*.h ${SOURCE_DIR}/src/*.h ${SOURCE_DIR}/src/*.cpp
     ${SOURCE_DIR}/testing/*.h ${SOURCE_DIR}/testing/*.cpp ${SOURCE_DIR}/tools/*.h ${SOURCE_DIR}/tools/*.cpp
     ${SOURCE_DIR}/examples/*.h ${SOURCE_DIR}/examples/*.cpp ${SOURCE_DIR}/bench/*.h ${SOURCE_DIR}/bench/*.cpp)
set(violations "")
set(checked 0)
foreach(file IN LISTS files)
  file(STRINGS ${SOURCE_DIR}/${file} lines REGEX "^[ \t]*#[ \t]*include[ \t]*\"")
  if(INJECT MATCHES "^${file}:(.+)$")
    list(APPEND lines "#include \"${CMAKE_MATCH_1}\"")
  endif()
  role_of(${file} from)
  if(from STREQUAL "")
    string(APPEND violations "\n  ${file}: in no layer (add its folder to the order)")
    continue()
  endif()
  get_filename_component(dir ${file} DIRECTORY)
  foreach(line IN LISTS lines)
    string(REGEX REPLACE "^[ \t]*#[ \t]*include[ \t]*\"([^\"]+)\".*" "\\1" name "${line}")
    math(EXPR checked "${checked} + 1")
    set(target "")
    foreach(base IN ITEMS ${dir} ${search_dirs})
      if(EXISTS ${SOURCE_DIR}/${base}/${name})
        file(RELATIVE_PATH target ${SOURCE_DIR} ${SOURCE_DIR}/${base}/${name})
        break()
      endif()
    endforeach()
    if(target STREQUAL "")
      continue()  # not ours (a third-party header in quotes)
    endif()
    role_of(${target} to)
    may_include(${file} "${from}" ${target} "${to}" ok)
    if(NOT ok)
      string(APPEND violations "\n  ${file} includes \"${name}\" (${target}: ${from} may not see ${to})")
    endif()
  endforeach()
endforeach()

if(violations)
  message(FATAL_ERROR "Includes against the dependency order:${violations}")
endif()
list(LENGTH files n)
message(STATUS "include order: ${n} files, ${checked} includes, all pointing down")
