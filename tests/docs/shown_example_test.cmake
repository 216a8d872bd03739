# A page must show an example's source as it is compiled, and what it prints.
#
#   cmake -DPAGE=… -DSOURCE=… -DPROGRAM=… [-DEMULATOR=…] -P shown_example_test.cmake
cmake_minimum_required(VERSION 3.25)
include(${CMAKE_CURRENT_LIST_DIR}/manual_example.cmake)
include(${CMAKE_CURRENT_LIST_DIR}/../support/run_program.cmake)

mem_expect_source(${PAGE} ${SOURCE})
expect_success()
mem_marked_block(${PAGE} output expected)
if(NOT out STREQUAL expected)
  fail("${PAGE} shows:\n${expected}")
endif()
