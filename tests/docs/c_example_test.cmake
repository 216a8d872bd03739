# The example in C must count the words and return all storage, and say why when it cannot start.
#
#   cmake -DPROGRAM=… [-DEMULATOR=…] -P c_example_test.cmake
cmake_minimum_required(VERSION 3.25)
include(${CMAKE_CURRENT_LIST_DIR}/../support/run_program.cmake)

expect_success()
if(NOT out MATCHES "\n8 words\n0 areas not returned\n$")
  fail("the words are not counted, or storage is not returned")
endif()
foreach(count "a          3" "rose       3" "is         2")
  string(FIND "\n${out}" "\n${count}\n" place)
  if(place EQUAL -1)
    fail("expected \"${count}\"")
  endif()
endforeach()

run_program(absent.library)
if(NOT code STREQUAL "1" OR NOT err MATCHES "cannot load absent.library")
  fail("expected that absent.library cannot be loaded")
endif()
