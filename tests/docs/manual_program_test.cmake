# The program of a page of the manual must print what the page says.
#
#   cmake -DPROGRAM=… -DPAGE=… [-DEMULATOR=…] -P manual_program_test.cmake
cmake_minimum_required(VERSION 3.25)

file(READ ${PAGE} page)
string(REPLACE "\r\n" "\n" page "${page}")
set(ENV{WINEDEBUG} "-all")
execute_process(COMMAND ${EMULATOR} ${PROGRAM} RESULT_VARIABLE code OUTPUT_VARIABLE out)
string(REPLACE "\r\n" "\n" out "${out}")
string(FIND "${page}" "```text\n${out}```\n" place)
if(NOT code STREQUAL "0" OR out STREQUAL "" OR place EQUAL -1)
  message(FATAL_ERROR "${PROGRAM} ended with ${code}; ${PAGE} does not show:\n${out}")
endif()
