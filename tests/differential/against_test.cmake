# bench/against.py compares a build with itself: a table with one benchmark, and what it says of a
# file that is no library.
#
#   cmake -DPROGRAM=… -DSCRIPT=… -DPYTHON=… -DMODULE=… -P against_test.cmake
#
# PROGRAM  workloadbench
# SCRIPT   against.py
cmake_minimum_required(VERSION 3.25)
set(EMULATOR ${PYTHON} ${SCRIPT})
set(benchmark append/MEM_Cat/10)
set(program ${PROGRAM})
set(PROGRAM ${MODULE})
include(${CMAKE_CURRENT_LIST_DIR}/../support/run_program.cmake)

# The times are not a matter of this test.
expect_success(${MODULE} ${program} --seconds 0 --rows ^${benchmark}/)
set(number "[0-9.e+]+")
if(NOT out MATCHES "^[^\n]+new / old[^\n]+\n[-:|]+\n\\| ${benchmark} \\| ${number} \\| ${number} \\| ${number} \\| ${number} to ${number} \\| 5 \\|\n\nSlower by more than 3%, the whole interval: (none|${benchmark})\n$")
  fail("expected a table of one benchmark and five rounds")
endif()

run_program(${program} ${program} --seconds 0 --rows ^${benchmark}/)
if(code STREQUAL "0" OR NOT err MATCHES "^against\\.py: workloadbench ")
  fail("expected the end of the program, which loads no library")
endif()
