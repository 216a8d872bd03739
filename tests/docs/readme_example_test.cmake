# README.md must show examples/minimal_host.cpp as it is compiled, and the program must run.
#
#   cmake -DREADME=… -DSOURCE=… -DPROGRAM=… [-DEMULATOR=…] -P readme_example_test.cmake
cmake_minimum_required(VERSION 3.25)
include(${CMAKE_CURRENT_LIST_DIR}/../support/run_program.cmake)

file(READ ${README} readme)
file(READ ${SOURCE} source)
string(REPLACE "\r\n" "\n" readme "${readme}")
string(REPLACE "\r\n" "\n" source "${source}")
string(FIND "${readme}" "```cpp\n${source}```\n" place)
if(place EQUAL -1)
  message(FATAL_ERROR "${README} does not show ${SOURCE} line by line")
endif()

expect_success()
if(NOT out MATCHES "^a string in a heap")
  fail("expected a string")
endif()
