# The example in C must count the words and return all storage, and say why when it cannot start.
#
#   cmake -DPROGRAM=… [-DEMULATOR=…] -P c_example_test.cmake
cmake_minimum_required(VERSION 3.25)

set(ENV{WINEDEBUG} "-all")
execute_process(COMMAND ${EMULATOR} ${PROGRAM}
  RESULT_VARIABLE code OUTPUT_VARIABLE out ERROR_VARIABLE err)
string(REPLACE "\r\n" "\n" out "${out}")
if(NOT code STREQUAL "0" OR NOT err STREQUAL "" OR NOT out MATCHES "\n8 words\n0 areas not returned\n$")
  message(FATAL_ERROR "${PROGRAM} ended with ${code}: ${out}${err}")
endif()
foreach(count "a          3" "rose       3" "is         2")
  string(FIND "\n${out}" "\n${count}\n" place)
  if(place EQUAL -1)
    message(FATAL_ERROR "${PROGRAM} does not print \"${count}\": ${out}")
  endif()
endforeach()

execute_process(COMMAND ${EMULATOR} ${PROGRAM} absent.library
  RESULT_VARIABLE code OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT code STREQUAL "1" OR NOT err MATCHES "cannot load absent.library")
  message(FATAL_ERROR "${PROGRAM} absent.library ended with ${code}: ${out}${err}")
endif()
