# Programs with one mistake each: the reference host must report it by itself, on stderr, with the
# service and the address, and by the exit code. Memory checkers must see what leaked, too.
#
#   cmake -DPROGRAM=… -DCHECKER=… [-DVALGRIND=…] [-DEMULATOR=…] -P leaking_program_test.cmake
#
# CHECKER   what else looks at the program: "none", "valgrind", "sanitizer" (the program's own)
# VALGRIND  its path
cmake_minimum_required(VERSION 3.25)
include(${CMAKE_CURRENT_LIST_DIR}/../support/run_program.cmake)

if(CHECKER STREQUAL "valgrind")
  if(NOT VALGRIND)
    message(FATAL_ERROR "valgrind is missing (Debian package valgrind)")
  endif()
  # Its own report goes to a file, so that stderr is the program's.
  set(log ${WORK}/valgrind.log)
  set(EMULATOR ${VALGRIND} --quiet --leak-check=full --show-leak-kinds=definite,indirect
      --errors-for-leak-kinds=definite --log-file=${log})
endif()

set(hexadecimal "[0-9A-F][0-9A-F][0-9A-F][0-9A-F][0-9A-F][0-9A-F][0-9A-F][0-9A-F]")
set(hexadecimal "${hexadecimal}${hexadecimal}")

# Leaves in `seen` what a memory checker has found.
macro(run_case)
  run_program(${ARGN})
  set(seen "")
  if(CHECKER STREQUAL "valgrind")
    file(READ ${log} seen)
  elseif(CHECKER STREQUAL "sanitizer")
    string(FIND "${err}" "\n=====" place)
    if(NOT place EQUAL -1)
      string(SUBSTRING "${err}" ${place} -1 seen)
      math(EXPR place "${place} + 1")
      string(SUBSTRING "${err}" 0 ${place} err)
      set(code 1)  # the sanitizer changes the program's
    endif()
  endif()
endmacro()

function(expect_text text)
  string(FIND "${err}" "${text}" place)
  if(place EQUAL -1)
    fail("${name}: expected on stderr:\n${text}\nmemory checker:\n${seen}")
  endif()
endfunction()

# The report has a stack in which the function is: by its name where the program exports names, else
# by its place in the program.
function(expect_stack_of function)
  if(CMAKE_HOST_UNIX AND NOT EMULATOR MATCHES "wine")
    set(place "${function}\\(refhost::Host&, bool\\)\\+0x[0-9A-F]+ \\(leaking_program\\+0x[0-9A-F]+\\)")
  else()
    set(place "[^\n]*leaking_program[^\n]*\\+0x[0-9A-F]+")
  endif()
  if(NOT err MATCHES "\n *(stack: )? *${place}\n")
    fail("${name} --stacks: expected a stack with the function ${function}")
  endif()
endfunction()

# expect_found(<case> <function> <text>... [LOST])
# The program of this case reports each text; ADDRESS stands for what it shows first on stdout, N for
# any number. With stacks it names the function that made the call. LOST: memory checkers see storage
# lost that the function allocated; else they see nothing.
function(expect_found name function)
  cmake_parse_arguments(PARSE_ARGV 2 arg "LOST" "" "")
  run_case(${name} --stacks)
  expect_stack_of(${function})
  run_case(${name})
  if(NOT code STREQUAL "1")
    fail("${name}: expected exit code 1")
  endif()
  if(out MATCHES "^([^\n]+)\n")
    string(REPLACE "${CMAKE_MATCH_1}" "ADDRESS" err "${err}")
  endif()
  string(REGEX REPLACE "(call|thread|gate) [0-9]+" "\\1 N" err "${err}")
  string(REGEX REPLACE "${hexadecimal}" "OTHER" err "${err}")
  foreach(text ${arg_UNPARSED_ARGUMENTS})
    expect_text("${text}")
  endforeach()
  if(CHECKER STREQUAL "none")
    return()
  endif()
  if(NOT arg_LOST AND NOT seen STREQUAL "")
    fail("${name}: the memory checker should see nothing:\n${seen}")
  elseif(arg_LOST AND NOT seen MATCHES "(definitely lost|[Dd]irect leak).* ${function}[( ]")
    fail("${name}: the memory checker does not see that ${function} has lost storage:\n${seen}")
  endif()
endfunction()

set(origin "subpool 7, kind 1, call N, thread N\n  called: ")
expect_found(heap heap
  "refhost: 1 leak (4096 bytes)\nleak: 4096 bytes at ADDRESS, ${origin}MEM_HeapOpen > MemAlloc\n" LOST)
expect_found(enhancedHeap enhancedHeap
  "refhost: 1 leak (4096 bytes), 1 misuse\nleak: 4096 bytes at ADDRESS, ${origin}MEM_EHeapOpen > MemAlloc\n"
  "misuse: DeleteGate: gate N was not deleted\n  called: MEM_EHeapOpen, thread N\n" LOST)
expect_found(area area "refhost: 1 leak (100 bytes)\nleak: 100 bytes at ADDRESS, ${origin}MemAlloc\n" LOST)
expect_found(largeArea largeArea "leak: 1048576 bytes at ADDRESS, ${origin}MemAlloc\n" LOST)
expect_found(equalAreas area
  "refhost: 10 leaks (1000 bytes)\nleak: 10 times 100 bytes, 1000 in all, the first at ADDRESS, ${origin}MemAlloc\n"
  LOST)
expect_found(hashTable hashTable "refhost: 2 leaks ("
  "leak: 4096 bytes at OTHER, ${origin}MEM_HashOpen > MEM_HeapOpen > MemAlloc\n"
  "bytes at ADDRESS, ${origin}MEM_HashOpen > MemAlloc\n" LOST)
expect_found(cellPool cellPool
  "refhost: 1 leak (" "bytes at ADDRESS, ${origin}MEM_CellOpen > MemAlloc\n" LOST)
expect_found(textBuffer textBuffer
  "refhost: 1 leak (1024 bytes)\nleak: 1024 bytes at ADDRESS, subpool 0, kind 1, call N, thread N\n"
  "  called: MEM_CatOpen > MemAlloc\n" LOST)
expect_found(chain chain
  "refhost: 1 leak (2048 bytes)\nleak: 2048 bytes at ADDRESS, subpool 0, kind 1, call N, thread N\n"
  "  called: MEM_Pack > MemAlloc\n" LOST)

set(area "  area:   100 bytes at ADDRESS, subpool 7, kind 1, call N, thread N\n    called: MemAlloc\n")
set(free "\n  called: MEM_Free, thread N\n")
expect_found(length length "refhost: 1 misuse\n"
  "misuse: FreeStorage: ADDRESS was allocated with length 100, freed with 99${free}${area}")
expect_found(freedTwice freedTwice "refhost: 1 misuse\n"
  "misuse: FreeStorage: ADDRESS is not a live area (never allocated or already freed)${free}")
expect_found(otherSubPool otherSubPool "refhost: 1 misuse\n"
  "misuse: FreeStorage: ADDRESS was allocated in subpool 7, freed in 8${free}${area}")
expect_found(foreignArea foreignArea "refhost: 1 misuse\n"
  "misuse: FreeStorage: ADDRESS is not a live area (never allocated or already freed)${free}")
expect_found(thread activate "refhost: 1 misuse\n"
  "misuse: FreePoolStorage: a thread ended while it was active: MEM_ThreadTerm was not called\n"
  "bytes at ADDRESS, subpool 2, kind pool, call N, thread N\n    called: MEM_ThreadAct\n")
expect_found(gate heldGate "refhost: 1 misuse\n"
  "misuse: ReleaseGate: gate N is held by thread N at the end: ReleaseGate was not called\n")

# The same services, used correctly.
run_case(none)
if(NOT code STREQUAL "0" OR NOT err STREQUAL "" OR NOT seen STREQUAL "")
  fail("none: expected success without a word\nmemory checker:\n${seen}")
endif()
string(REGEX MATCHALL "\n" lines "${out}")
list(LENGTH lines count)
if(NOT count EQUAL 23)
  fail("none: expected that all cases run")
endif()

# A misuse has the stacks of both calls.
run_case(length --stacks)
string(REGEX MATCHALL "stack:  [^\n]*leaking_program" stacks "${err}")
list(LENGTH stacks count)
if(NOT count EQUAL 2)
  fail("length --stacks: expected the stacks of both calls")
endif()
