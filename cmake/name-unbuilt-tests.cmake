# Prints how to build the test programs that were missing in the last run of `ctest`. CTest runs this
# at its end.
#
#   cmake -DBUILD=… -P name-unbuilt-tests.cmake
#
# BUILD  the build folder; test-programs.txt in it has one line for each test program: its target,
#        a blank and its path. Testing/begun was written when the run began
cmake_minimum_required(VERSION 3.25)

set(failed ${BUILD}/Testing/Temporary/LastTestsFailed.log)
if(NOT EXISTS ${failed} OR NOT ${failed} IS_NEWER_THAN ${BUILD}/Testing/begun)
  return()
endif()
file(STRINGS ${failed} failed)
list(TRANSFORM failed REPLACE "^[0-9]+:(validate/)?" "")
file(STRINGS ${BUILD}/test-programs.txt programs)
set(unbuilt "")
foreach(program IN LISTS programs)
  string(REGEX MATCH "^([^ ]+) (.+)$" matched "${program}")
  if(CMAKE_MATCH_1 IN_LIST failed AND NOT EXISTS "${CMAKE_MATCH_2}")
    list(APPEND unbuilt ${CMAKE_MATCH_1})
  endif()
endforeach()
list(LENGTH unbuilt count)
if(count EQUAL 0)
  return()
endif()
list(GET unbuilt 0 first)
message(NOTICE "\n${count} of these tests are not built. Build all of them, or one:\n"
  "  cmake --build \"${BUILD}\"\n"
  "  cmake --build \"${BUILD}\" --target ${first}")
