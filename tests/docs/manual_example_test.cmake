# The example of a page of the manual must run and print what the page shows.
#
#   cmake -DPROGRAM=… -DPAGE=… [-DEMULATOR=…] -P manual_example_test.cmake
cmake_minimum_required(VERSION 3.25)
include(${CMAKE_CURRENT_LIST_DIR}/manual_example.cmake)

mem_marked_block(${PAGE} output expected)
if(expected STREQUAL "")
  message(FATAL_ERROR "${PAGE} does not show what its example prints")
endif()

set(ENV{WINEDEBUG} "-all")
execute_process(COMMAND ${EMULATOR} ${PROGRAM} RESULT_VARIABLE code OUTPUT_VARIABLE out
                ERROR_VARIABLE err)
string(REPLACE "\r\n" "\n" out "${out}")
if(NOT code STREQUAL "0" OR NOT err STREQUAL "" OR NOT out STREQUAL expected)
  message(FATAL_ERROR "The example of ${PAGE} ended with ${code}: ${err}\n"
                      "It printed:\n${out}\nThe page shows:\n${expected}")
endif()
