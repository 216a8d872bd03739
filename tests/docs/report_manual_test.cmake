# The program of the page on leaks must report what the page shows.
#
#   cmake -DPROGRAM=… -DPAGE=… -DWORK=… [-DEMULATOR=…] -P report_manual_test.cmake
cmake_minimum_required(VERSION 3.25)
include(${CMAKE_CURRENT_LIST_DIR}/page_program.cmake)
include(${CMAKE_CURRENT_LIST_DIR}/../support/run_program.cmake)

# A sanitizer would report the leaks as well.
set(ENV{ASAN_OPTIONS} detect_leaks=0)

read_page(${PAGE})
shown_block("```text" 0 report)
run_program()
mask(err)
if(NOT code STREQUAL "1" OR NOT err STREQUAL report)
  fail("${PAGE} shows:\n${report}")
endif()

# Names of functions are known on Linux only. The page calls the program "leak".
shown_block("```text" 1 excerpt)
string(REPLACE "(leak+" "(${program_name}+" excerpt "${excerpt}")
run_program(stacks)
mask(err)
string(FIND "${err}" "${excerpt}" place)
if(NOT EMULATOR AND place EQUAL -1)
  fail("${PAGE} shows:\n${excerpt}")
endif()
if(NOT err MATCHES "stack:  [^\n]*${program_name}")
  fail("expected stacks")
endif()
