# The program of the page on overwrites must be reported as the page shows, by the checking layer
# alone or by a memory checker, too.
#
#   cmake -DPROGRAM=… -DPAGE=… -DWORK=… [-DCHECKER=asan|valgrind] [-DVALGRIND=… -DSUPPRESSIONS=…]
#         [-DEMULATOR=…] -P overwrite_manual_test.cmake
#
# PROGRAM   that of the page; for asan compiled with the sanitizer
# VALGRIND  the program of that name, and the suppressions that are shipped for it
cmake_minimum_required(VERSION 3.25)
include(${CMAKE_CURRENT_LIST_DIR}/page_program.cmake)
include(${CMAKE_CURRENT_LIST_DIR}/../support/run_program.cmake)

read_page(${PAGE})

# What differs from machine to machine. The page calls the program "overwrite".
function(mask_places variable)
  set(text "${${variable}}")
  mask(text)
  string(REGEX REPLACE "(overwrite|find_an_overwrite)(_asan)?(\\.exe)?\\+OFFSET" "PLACE" text "${text}")
  string(REGEX REPLACE "[^ (]*(overwrite|find_an_overwrite)(_asan)?\\.cpp:" "SOURCE:" text "${text}")
  string(REGEX REPLACE "==[0-9]+==" "==N==" text "${text}")
  string(REGEX REPLACE "(pc|bp|sp) OFFSET" "\\1 N" text "${text}")
  if(EMULATOR MATCHES "wine")  # names of functions are known on Linux only
    string(REGEX REPLACE "PLACE \\([^\n]*\\)\n" "PLACE\n" text "${text}")
  endif()
  set(${variable} "${text}" PARENT_SCOPE)
endfunction()

function(expect_shown number)
  shown_block("```text" ${number} excerpt)
  mask_places(excerpt)
  expect_lines("${err}" "${excerpt}")
endfunction()

set(ENV{MEM_CHECKED} 0)
run_program()
if(NOT CHECKER AND (NOT code STREQUAL "0" OR NOT err STREQUAL ""))
  fail("without the layer nothing should be found")
endif()

set(ENV{MEM_CHECKED} 1)
if(CHECKER STREQUAL "valgrind")
  set(EMULATOR ${VALGRIND} --suppressions=${SUPPRESSIONS})
endif()
run_program()
mask_places(err)
if(CHECKER STREQUAL "asan")
  if(code STREQUAL "0")
    fail("the sanitizer should end the program")
  endif()
  expect_shown(1)
elseif(CHECKER STREQUAL "valgrind")
  expect_shown(2)
else()
  shown_block("```text" 0 report)
  mask_places(report)
  if(NOT code STREQUAL "1" OR NOT err STREQUAL report)
    fail("${PAGE} shows:\n${report}")
  endif()
endif()
