# Runs kel with ARGS; passes when the exit code is EXPECT_RC and, for usage
# errors, stderr is exactly one line.
set(args ${ARGS})  # arrives as a CMake list
execute_process(COMMAND ${KEL} ${args} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT rc STREQUAL EXPECT_RC)
  message(FATAL_ERROR "kel ${ARGS}: exit ${rc}, expected ${EXPECT_RC}\nstdout: ${out}\nstderr: ${err}")
endif()
if(EXPECT_RC EQUAL 2)
  string(REGEX MATCHALL "\n" lines "${err}")
  list(LENGTH lines n)
  if(NOT n EQUAL 1 OR NOT err MATCHES "^kel: ")
    message(FATAL_ERROR "kel ${ARGS}: expected one 'kel: ...' line on stderr, got: ${err}")
  endif()
endif()
message(STATUS "${out}")
