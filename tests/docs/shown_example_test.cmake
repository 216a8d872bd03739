# A page must show an example's source as it is compiled, and what it prints.
#
#   cmake -DPAGE=… -DSOURCE=… -DPROGRAM=… [-DEMULATOR=…] -P shown_example_test.cmake
cmake_minimum_required(VERSION 3.25)
include(${CMAKE_CURRENT_LIST_DIR}/manual_example.cmake)
include(${CMAKE_CURRENT_LIST_DIR}/../support/run_program.cmake)

file(READ ${PAGE} page)
file(READ ${SOURCE} source)
string(REPLACE "\r\n" "\n" page "${page}")
string(REPLACE "\r\n" "\n" source "${source}")
string(FIND "${page}" "```cpp\n${source}```\n" place)
if(place EQUAL -1)
  message(FATAL_ERROR "${PAGE} does not show ${SOURCE} line by line")
endif()

expect_success()
mem_marked_block(${PAGE} output expected)
if(NOT out STREQUAL expected)
  fail("${PAGE} shows:\n${expected}")
endif()
