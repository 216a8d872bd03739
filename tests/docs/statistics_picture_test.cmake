# memtool draws the snapshot of the program on the page about statistics as the page shows it.
#
#   cmake -DPROGRAM=… -DMEMTOOL=… -DPICTURE=… -DWORK=… [-DEMULATOR=…] -P statistics_picture_test.cmake
#
# PICTURE  that the page shows
cmake_minimum_required(VERSION 3.25)
include(${CMAKE_CURRENT_LIST_DIR}/../support/run_program.cmake)

expect_success()
set(PROGRAM ${MEMTOOL})
expect_success(heapmap snapshot.json --svg statistics.svg)
file(READ ${WORK}/statistics.svg drawn)
file(READ ${PICTURE} shown)
if(NOT drawn STREQUAL shown)
  fail("${PICTURE} is not what memtool draws: see ${WORK}/statistics.svg")
endif()
