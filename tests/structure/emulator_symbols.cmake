# The emulator library exports the class of its public header and nothing else: no member of its
# hidden implementation, no standard-library instance, nothing of cpp-httplib, SQLite or RapidJSON.
# The documented surface is listed here; a member added to or dropped from the header must be
# added or dropped here too.
#   cmake -DLIBRARY=<libkovantis_emulator.so> -P emulator_symbols.cmake
cmake_minimum_required(VERSION 3.25)
set(surface KOEmulator Options routes start stop isRunning port baseURL controlURL dashboardURL controlToken seed seedUnchecked seedsJSON
            injectFault clearFaults faults reset requests requestCount devices batches events duplicates logs
            categories geofenceHits campaignEvents users inspectJSON peakConcurrentRequests waitForRequests)
execute_process(COMMAND nm -D --defined-only -C ${LIBRARY} OUTPUT_VARIABLE out RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "nm failed on ${LIBRARY}")
endif()
string(REPLACE ";" "," out "${out}")
string(REPLACE "\n" ";" symbols "${out}")

set(unexpected "")
set(seen "")
foreach(line IN LISTS symbols)
  if(line STREQUAL "")
    continue()
  endif()
  string(REGEX REPLACE "^[0-9a-f]* +[A-Za-z] +" "" symbol "${line}")
  # KOEmulator::name( or the destructor ~KOEmulator(
  if(symbol MATCHES "^KOEmulator::~?([A-Za-z_]+)(\\[abi:cxx11\\])?\\(")
    set(name ${CMAKE_MATCH_1})  # "Impl" is not in the surface
    list(FIND surface "${name}" at)
    if(at GREATER -1)
      list(APPEND seen ${name})
      continue()
    endif()
  endif()
  string(APPEND unexpected "\n  ${symbol}")
endforeach()
if(unexpected)
  message(FATAL_ERROR "libkovantis_emulator exports more than its documented surface:${unexpected}")
endif()
list(REMOVE_DUPLICATES seen)
set(missing ${surface})
list(REMOVE_ITEM missing Options ${seen})  # Options is a plain struct: nothing to export
if(missing)
  message(FATAL_ERROR "libkovantis_emulator does not export: ${missing}")
endif()
list(LENGTH symbols n)
message(STATUS "emulator exports ${n} symbols, all of its documented surface")
