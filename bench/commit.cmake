# Writes HEADER with the commit of SOURCE as BENCH_COMMIT; leaves it untouched if it says so already.
cmake_minimum_required(VERSION 3.25)
execute_process(COMMAND git -C ${SOURCE} describe --always --dirty --abbrev=12
                OUTPUT_VARIABLE commit OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET
                RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  set(commit "unknown")
endif()
file(CONFIGURE OUTPUT ${HEADER} CONTENT "#pragma once\n#define BENCH_COMMIT \"@commit@\"\n" @ONLY)
