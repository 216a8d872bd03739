# The example of a page of the manual must run and print what the page shows.
#
#   cmake -DPROGRAM=… -DPAGE=… [-DEMULATOR=…] -P manual_example_test.cmake
cmake_minimum_required(VERSION 3.25)
include(${CMAKE_CURRENT_LIST_DIR}/manual_example.cmake)
include(${CMAKE_CURRENT_LIST_DIR}/../support/run_program.cmake)

mem_marked_block(${PAGE} output expected)
if(expected STREQUAL "")
  message(FATAL_ERROR "${PAGE} does not show what its example prints")
endif()

expect_success()
if(NOT out STREQUAL expected)
  fail("${PAGE} shows:\n${expected}")
endif()
