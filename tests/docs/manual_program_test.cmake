# The program of a page of the manual must print what the page says.
#
#   cmake -DPROGRAM=… -DPAGE=… [-DWORK=…] [-DEMULATOR=…] -P manual_program_test.cmake
cmake_minimum_required(VERSION 3.25)
include(${CMAKE_CURRENT_LIST_DIR}/page_program.cmake)
include(${CMAKE_CURRENT_LIST_DIR}/../support/run_program.cmake)

read_page(${PAGE})
expect_success()
mask(out)
string(FIND "${page}" "```text\n${out}```\n" place)
if(out STREQUAL "" OR place EQUAL -1)
  fail("${PAGE} does not show what the program prints")
endif()
