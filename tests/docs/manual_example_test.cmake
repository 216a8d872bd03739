# The example of a page of the manual must run and print what the page shows.
#
#   cmake -DPROGRAM=… -DPAGE=… [-DMARK=…] [-DEMULATOR=…] -P manual_example_test.cmake
#
# MARK  of the block that shows it; "output" when not given
cmake_minimum_required(VERSION 3.25)
include(${CMAKE_CURRENT_LIST_DIR}/manual_example.cmake)
include(${CMAKE_CURRENT_LIST_DIR}/../support/run_program.cmake)

if(NOT MARK)
  set(MARK output)
endif()
mem_marked_block(${PAGE} "${MARK}" expected)
if(expected STREQUAL "")
  message(FATAL_ERROR "${PAGE} does not show what its example prints")
endif()

expect_success()
if(NOT out STREQUAL expected)
  fail("${PAGE} shows:\n${expected}")
endif()
