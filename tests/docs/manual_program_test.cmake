# The program of a page of the manual must print what the page says.
#
#   cmake -DPROGRAM=… -DPAGE=… [-DEMULATOR=…] -P manual_program_test.cmake
cmake_minimum_required(VERSION 3.25)
include(${CMAKE_CURRENT_LIST_DIR}/../support/run_program.cmake)

file(READ ${PAGE} page)
string(REPLACE "\r\n" "\n" page "${page}")
expect_success()
string(FIND "${page}" "```text\n${out}```\n" place)
if(out STREQUAL "" OR place EQUAL -1)
  fail("${PAGE} does not show what the program prints")
endif()
