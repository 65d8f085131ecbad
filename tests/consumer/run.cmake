# Installs the SDK into a scratch prefix, then configures, builds and runs separate projects that
# find it with find_package(Kovantis): a small consumer (project/), and the README's own examples,
# taken out of README.md here so that the text and what is tested cannot drift apart; then builds
# the README's programs again with pkg-config, from the prefix moved elsewhere. Nothing sees the
# source tree: only the prefix. Run by ctest after the main build.
cmake_minimum_required(VERSION 3.25)
file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "command failed (${rc}): ${ARGN}\n${out}\n${err}")
  endif()
  set(run_output "${out}" PARENT_SCOPE)
endfunction()

run(${CMAKE_COMMAND} --install ${BINARY_DIR} --prefix ${prefix})
set(flags "")
if(SANITIZE)
  set(flags "-fsanitize=${SANITIZE}")
endif()
function(configure_and_build source build)
  run(${CMAKE_COMMAND} -S ${source} -B ${build} -G ${GENERATOR} -DCMAKE_CXX_COMPILER=${CXX}
      -DCMAKE_PREFIX_PATH=${prefix} "-DCMAKE_CXX_FLAGS=${flags}" "-DCMAKE_EXE_LINKER_FLAGS=${flags}"
      -DCMAKE_EXPORT_COMPILE_COMMANDS=ON)
  run(${CMAKE_COMMAND} --build ${build})
  # Headers and libraries come from the prefix alone.
  file(READ ${build}/compile_commands.json commands)
  foreach(flag "-I" "-isystem ")
    foreach(dir include src tools testing tests)
      string(FIND "${commands}" "${flag}${SOURCE_DIR}/${dir}" at)
      if(NOT at EQUAL -1)
        message(FATAL_ERROR "${source} compiles with an include path into the source tree (${SOURCE_DIR}/${dir})")
      endif()
    endforeach()
  endforeach()
endfunction()

configure_and_build(${SOURCE_DIR}/tests/consumer/project ${WORK_DIR}/build)
run(${WORK_DIR}/build/kovantis-consumer)

# Every block of README.md announced by "<!-- tests/consumer builds and runs this block as NAME -->"
# becomes the file NAME of one project.
file(READ ${SOURCE_DIR}/README.md readme)
set(examples ${WORK_DIR}/readme)
set(names "")
set(rest "${readme}")
while(rest MATCHES "<!-- tests/consumer builds and runs this block as ([A-Za-z_.]+) -->\n```[a-z]*\n([^`]*)```(.*)$")
  set(name "${CMAKE_MATCH_1}")
  set(code "${CMAKE_MATCH_2}")
  set(rest "${CMAKE_MATCH_3}")
  file(WRITE ${examples}/${name} "${code}")
  list(APPEND names ${name})
endwhile()
foreach(needed CMakeLists.txt hello_kovantis.cpp app_test.cpp)
  if(NOT needed IN_LIST names)
    message(FATAL_ERROR "README.md has no block for ${needed} (found: ${names})")
  endif()
endforeach()
configure_and_build(${examples} ${examples}/build)

# "Using the SDK": the events reach the local emulator, and the README shows what it prints.
run(${examples}/build/hello_kovantis)
foreach(line "delivered: yes" "service stored PRODUCT_VIEWED {\"EVENT_ACTION\":\"PRODUCT_VIEWED\",\"EVENT_ATTRS\":{\"sku\":\"A1\",\"price\":9.99}"
             "service stored CHECKOUT {\"EVENT_ACTION\":\"CHECKOUT\",\"EVENT_ATTRS_CUST\":{\"location\":[{\"store\":\"12.970000,77.590000\"}]}")
  string(FIND "${run_output}" "${line}" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "hello_kovantis did not print \"${line}\":\n${run_output}")
  endif()
  string(FIND "${readme}" "${line}" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "README.md does not show \"${line}\" among the output of hello_kovantis")
  endif()
endforeach()

# "Testing your app": every test case passes, the injected failure included.
run(${CTEST} --test-dir ${examples}/build --output-on-failure)
foreach(test TheServiceStoresThePurchaseWithItsAttributes ABatchRefusedWithA500IsKeptAndSentAgain
             APushOpensTheProductAndTheCartShowsTheOffer)
  string(FIND "${run_output}" "PurchaseTest.${test} " at)
  if(at EQUAL -1)
    message(FATAL_ERROR "the README's test PurchaseTest.${test} did not run:\n${run_output}")
  endif()
endforeach()

# The privacy manifest ships with the package, for the app's own.
if(NOT EXISTS ${prefix}/share/kovantis/PrivacyInfo.xcprivacy)
  message(FATAL_ERROR "the privacy manifest was not installed (share/kovantis/PrivacyInfo.xcprivacy)")
endif()

# The installed emulator library exports its documented surface only.
run(${CMAKE_COMMAND} -DLIBRARY=${prefix}/lib/libkovantis_emulator.so -P ${SOURCE_DIR}/tests/structure/emulator_symbols.cmake)

# What the prefix holds beside the headers: libraries that keep their execute bit, and the seed
# schema for the seeds' authors.
execute_process(COMMAND find ${prefix}/lib -name "*.so*" -type f ! -perm -u+x OUTPUT_VARIABLE unexecutable)
if(unexecutable)
  message(FATAL_ERROR "installed libraries without their execute bit:\n${unexecutable}")
endif()
if(NOT EXISTS ${prefix}/share/kovantis/schemas/seed.schema.json)
  message(FATAL_ERROR "the seed schema is not installed under ${prefix}/share/kovantis/schemas")
endif()

# The same programs built with pkg-config instead of CMake, from the prefix moved elsewhere: the
# modules find everything from their own place.
set(moved ${WORK_DIR}/moved-prefix)
file(RENAME ${prefix} ${moved})
find_program(PKG_CONFIG pkg-config REQUIRED)
set(ENV{PKG_CONFIG_PATH} ${moved}/lib/pkgconfig)
run(${PKG_CONFIG} --variable=libdir kovantis)
string(STRIP "${run_output}" libdir)
function(pkg_config_build name)  # name.cpp of the README's examples, then the modules
  run(${PKG_CONFIG} --cflags --libs ${ARGN})
  string(STRIP "${run_output}" flags)
  separate_arguments(flags UNIX_COMMAND "${flags}")
  foreach(flag IN LISTS flags)
    if(flag MATCHES "^-[IL]" AND NOT flag MATCHES "^-[IL]${moved}/")
      message(FATAL_ERROR "pkg-config ${ARGN} points outside the prefix: ${flag}")
    endif()
  endforeach()
  separate_arguments(sanitize UNIX_COMMAND "${flags_of_build}")
  run(${CXX} -std=c++20 ${sanitize} ${examples}/${name}.cpp -o ${examples}/${name}-pc ${flags} ${extra_libs}
      -Wl,-rpath,${libdir})
endfunction()
set(flags_of_build "${flags}")
set(extra_libs "")
pkg_config_build(hello_kovantis kovantis kovantis-sim kovantis-emulator)
run(${examples}/hello_kovantis-pc)
string(FIND "${run_output}" "delivered: yes" at)
if(at EQUAL -1)
  message(FATAL_ERROR "hello_kovantis built with pkg-config did not deliver:\n${run_output}")
endif()
set(extra_libs -lgtest_main -lgtest -pthread)
pkg_config_build(app_test kovantis-testing)
run(${examples}/app_test-pc --gtest_list_tests)
string(REPLACE "\n" ";" lines "${run_output}")
set(cases "")
foreach(line IN LISTS lines)
  if(line MATCHES "^([A-Za-z0-9_]+)\\.")
    set(suite ${CMAKE_MATCH_1})
  elseif(line MATCHES "^  ([A-Za-z0-9_]+)")
    list(APPEND cases ${suite}.${CMAKE_MATCH_1})
  endif()
endforeach()
if(NOT cases)
  message(FATAL_ERROR "app_test built with pkg-config lists no test:\n${run_output}")
endif()
foreach(case IN LISTS cases)  # one process per test case, as the README says
  run(${examples}/app_test-pc --gtest_filter=${case})
endforeach()
message(STATUS "consumer and the README's examples built and ran against ${prefix}, with CMake and then with pkg-config moved to ${moved}")
