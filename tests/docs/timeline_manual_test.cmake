# The program of the page on the reference host writes its calls to a file: it must be JSON and begin
# as the page shows.
#
#   cmake -DPROGRAM=… -DPAGE=… -DWORK=… [-DEMULATOR=…] -P timeline_manual_test.cmake
cmake_minimum_required(VERSION 3.25)
include(${CMAKE_CURRENT_LIST_DIR}/page_program.cmake)
include(${CMAKE_CURRENT_LIST_DIR}/../support/run_program.cmake)

read_page(${PAGE})
shown_block("```json" 0 shown)
expect_success()
file(READ ${WORK}/timeline.json timeline)

# Begins and ends nest; there is one thread.
string(JSON count LENGTH "${timeline}")
math(EXPR last "${count} - 1")
set(depth 0)
set(spans 0)
foreach(i RANGE ${last})
  string(JSON phase GET "${timeline}" ${i} ph)
  if(phase STREQUAL "B")
    math(EXPR depth "${depth} + 1")
    math(EXPR spans "${spans} + 1")
  elseif(phase STREQUAL "E")
    math(EXPR depth "${depth} - 1")
  endif()
  if(depth LESS 0)
    fail("event ${i} of timeline.json ends a span that has not begun")
  endif()
endforeach()
if(NOT depth EQUAL 0 OR spans LESS 10)
  fail("timeline.json has ${spans} spans, ${depth} of them without end")
endif()

mask(timeline)
string(FIND "${timeline}" "${shown}" place)
if(shown STREQUAL "" OR NOT place EQUAL 0)
  fail("${PAGE} does not show how timeline.json begins:\n${timeline}")
endif()
