# With the suppressions that are shipped valgrind says nothing of the library's reads beyond wide
# texts, and loses no mistake of a component, in its own code or in a service.
#
#   cmake -DPROGRAM=… -DVALGRIND=… -DSUPPRESSIONS=… -P wide_texts_test.cmake
#
# PROGRAM       wide_texts
# VALGRIND      the program of that name
# SUPPRESSIONS  the file
cmake_minimum_required(VERSION 3.25)
include(${CMAKE_CURRENT_LIST_DIR}/../support/run_program.cmake)

set(memcheck ${VALGRIND} --quiet --error-exitcode=99)
set(EMULATOR ${memcheck} --suppressions=${SUPPRESSIONS})

foreach(checked 0 1)
  set(ENV{MEM_CHECKED} ${checked})
  run_program(clean)
  if(NOT code STREQUAL "0" OR NOT out STREQUAL "" OR NOT err STREQUAL "")
    fail("MEM_CHECKED=${checked}: a correct component")
  endif()
endforeach()
set(ENV{MEM_CHECKED} 0)

# must_find(<mistake> <reported> <function> [<errors>]): as the only error, unless there may be more.
function(must_find mistake reported function)
  run_program(${mistake})
  string(REGEX MATCHALL "Invalid (read|write)" errors "${err}")
  list(LENGTH errors count)
  if(NOT code STREQUAL "99" OR NOT count MATCHES "^${ARGN}$" AND NOT count EQUAL 1
      OR NOT err MATCHES "${reported}\n.*::${function}\\(")
    fail("${mistake}: \"${reported}\" in ${function}, and nothing else, is not said")
  endif()
endfunction()
must_find(own-read "Invalid read of size 16" "readBeyond")
must_find(own-write "Invalid write of size 1" "writeBeyond")
# How far such a text goes depends on what follows it, and it is copied as well.
must_find(no-end "Invalid read of size [0-9]+" "passNoEnd" "[1-9]")
must_find(short-record "Invalid read of size 16" "passShortRecord")

# Were there nothing to suppress, this test would find out nothing.
set(EMULATOR ${memcheck})
run_program(clean)
if(NOT code STREQUAL "99" OR NOT err MATCHES "Invalid read of size 16\n")
  fail("without the suppressions valgrind should report reads of 16 bytes")
endif()
