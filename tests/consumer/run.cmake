# Installs the SDK into a scratch prefix, then configures, builds and runs a separate project that
# finds it with find_package(Kovantis). Run by ctest after the main build.
file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "command failed (${rc}): ${ARGN}\n${out}\n${err}")
  endif()
endfunction()

run(${CMAKE_COMMAND} --install ${BINARY_DIR} --prefix ${prefix})
set(flags "")
if(SANITIZE)
  set(flags "-fsanitize=${SANITIZE}")
endif()
run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/tests/consumer/project -B ${WORK_DIR}/build -G ${GENERATOR}
    -DCMAKE_CXX_COMPILER=${CXX} -DCMAKE_PREFIX_PATH=${prefix} "-DCMAKE_CXX_FLAGS=${flags}"
    "-DCMAKE_EXE_LINKER_FLAGS=${flags}")
run(${CMAKE_COMMAND} --build ${WORK_DIR}/build)
run(${WORK_DIR}/build/kovantis-consumer)
# The pkg-config file must point at the same installed library.
file(READ ${prefix}/lib/pkgconfig/kovantis.pc pc)
if(NOT pc MATCHES "-lkovantis")
  message(FATAL_ERROR "kovantis.pc does not link the library:\n${pc}")
endif()
message(STATUS "consumer built and ran against ${prefix}")
