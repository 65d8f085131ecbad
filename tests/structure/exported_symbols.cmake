# The shared library exports the public API and what the simulated device needs, nothing else:
# no internal class of ours (named after the headers under src/) and no third-party symbol.
#   cmake -DLIBRARY=<libkovantis.so> -DSOURCE_DIR=<repo> -P exported_symbols.cmake
execute_process(COMMAND nm -D --defined-only -C ${LIBRARY} OUTPUT_VARIABLE out RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "nm failed on ${LIBRARY}")
endif()
string(REPLACE ";" "," out "${out}")
string(REPLACE "\n" ";" symbols "${out}")

file(GLOB_RECURSE headers RELATIVE ${SOURCE_DIR}/src ${SOURCE_DIR}/src/*.h)
set(internal rapidjson plist_ curl_)
foreach(h IN LISTS headers)
  get_filename_component(name ${h} NAME_WE)
  # The simulated device is a library of its own; the serialiser is exported for it, the JSON
  # reader for the test harness (its parse only, checked below).
  if(NOT h MATCHES "^Platform/Sim/" AND NOT name STREQUAL "KOPropertyListSerialization"
     AND NOT name STREQUAL "KOJSONSerialization")
    list(APPEND internal ${name})
  endif()
endforeach()

set(leaks "")
foreach(line IN LISTS symbols)
  if(line MATCHES "KOJSONSerialization::" AND NOT line MATCHES "KOJSONSerialization::parse\\(")
    string(APPEND leaks "\n  ${line}")
  endif()
  foreach(name IN LISTS internal)
    if(" ${line} " MATCHES "[^A-Za-z0-9_]${name}([^A-Za-z0-9]|$)")
      string(APPEND leaks "\n  ${line}")
      break()
    endif()
  endforeach()
endforeach()
if(leaks)
  message(FATAL_ERROR "libkovantis exports internal or third-party symbols:${leaks}")
endif()
foreach(needed "Kovantis::sharedInstance()" "KOPlatform::install(" "operator==(KOValue const&, KOValue const&)"
               "KOPropertyListSerialization::parse("
               "KOJSONSerialization::parse(")
  string(FIND "${out}" "${needed}" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "libkovantis does not export ${needed}")
  endif()
endforeach()
list(LENGTH symbols n)
message(STATUS "exported symbols: ${n}, none internal")
