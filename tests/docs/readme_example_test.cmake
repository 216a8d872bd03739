# README.md must show examples/minimal_host.cpp as it is compiled, and the program must run.
#
#   cmake -DREADME=… -DSOURCE=… -DPROGRAM=… [-DEMULATOR=…] -P readme_example_test.cmake
cmake_minimum_required(VERSION 3.25)
include(${CMAKE_CURRENT_LIST_DIR}/manual_example.cmake)
include(${CMAKE_CURRENT_LIST_DIR}/../support/run_program.cmake)

mem_expect_source(${README} ${SOURCE})
expect_success()
if(NOT out MATCHES "^a string in a heap")
  fail("expected a string")
endif()
