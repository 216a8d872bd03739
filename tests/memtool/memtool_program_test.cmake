# Runs memtool as a user does: the process's exit codes, its streams, pipes and terminals.
#
#   cmake -DPROGRAM=… -DCHAINS=… -DWORK=… [-DEMULATOR=…] -P memtool_program_test.cmake
#
# CHAINS  folder with chains
cmake_minimum_required(VERSION 3.25)
include(${CMAKE_CURRENT_LIST_DIR}/../support/run_program.cmake)
string(ASCII 27 ESC)

function(expect_fine)
  expect_success(${ARGN})
  string(FIND "${out}" "${ESC}" place)
  if(NOT place EQUAL -1)
    fail("memtool ${ARGN}: colours in a pipe")
  endif()
  set(out "${out}" PARENT_SCOPE)
endfunction()

expect_fine(--help)
expect_fine(--version)
expect_refused(2 "a command is required")
expect_refused(2 "--nonsense" errors --nonsense)
expect_refused(2 "there is no command \"chian\"" chian)
expect_fine(errors)
if(NOT out MATCHES "\n4072 +0xFE8  MEMERR_PACKCYCL +Recursive Structure\n")
  fail("the message table is not what was expected")
endif()
expect_refused(1 "\"1\" is not a code of this library" errors 1)
expect_refused(1 "\"-1\" is the result of a failing call" errors -1)

# Every chain, as text and as JSON.
file(GLOB chains ${CHAINS}/*.chain)
list(LENGTH chains count)
if(count LESS 22)
  message(FATAL_ERROR "${count} chains in ${CHAINS}")
endif()
foreach(chain IN LISTS chains)
  expect_fine(chain ${chain} --check)
endforeach()
list(GET chains 0 chain)
expect_fine(chain ${chain})
expect_fine(chain ${chain} --json)
string(JSON segments LENGTH "${out}" segments)
if(NOT segments EQUAL 10)
  fail("the JSON has ${segments} segments")
endif()
expect_fine(chain ${chain} --svg picture.svg)
file(READ ${WORK}/picture.svg svg)
if(NOT svg MATCHES "^<\\?xml .*</svg>\n$")
  message(FATAL_ERROR "picture.svg is no picture")
endif()
expect_fine(chain ${chain} --to-native native.chain)
expect_fine(chain native.chain --check)

# Names that no single code page holds.
file(COPY_FILE ${chain} "${WORK}/kette-ä-本.chain")
expect_fine(chain "kette-ä-本.chain" --to-native "neu-ä-本.chain")
expect_fine(chain "neu-ä-本.chain")
if(NOT out MATCHES "^neu-ä-本\\.chain\n")
  fail("the name of the file is not shown as it is")
endif()

file(WRITE ${WORK}/none "no chain at all")
expect_refused(1 "none: block 0, offset 2 (file offset 2): no version is here" chain none)
expect_refused(3 "cannot read absent" chain absent)
expect_refused(3 "there is no library" heapmap --library absent)

# A library by its path, from another folder.
cmake_path(GET PROGRAM PARENT_PATH folder)
file(GLOB module ${folder}/QJ7MEM00.so ${folder}/QJ7MEM00.dll)
expect_fine(heapmap --library ${module})

# A script from stdin.
file(WRITE ${WORK}/script "open h heap 1\nentry h a 100\n")
execute_process(COMMAND ${EMULATOR} ${PROGRAM} heapmap - INPUT_FILE ${WORK}/script
  RESULT_VARIABLE code OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT code STREQUAL "0" OR NOT out MATCHES "56 +104  a \\(100\\)")
  fail("memtool heapmap -: expected an entry")
endif()
expect_fine(heapmap --svg heaps.svg)
execute_process(COMMAND ${EMULATOR} ${PROGRAM} chain - --check INPUT_FILE ${chain}
  RESULT_VARIABLE code OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT code STREQUAL "0" OR NOT out MATCHES "^-: valid, 10 segments")
  fail("memtool chain -: expected a valid chain")
endif()

# Standard input is read once.
foreach(words "chain;-;-" "diff;-;-")
  execute_process(COMMAND ${EMULATOR} ${PROGRAM} ${words} INPUT_FILE ${chain}
    RESULT_VARIABLE code OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT code STREQUAL "3" OR NOT err MATCHES "standard input can be read only once\n$")
    fail("memtool ${words}: expected that standard input is read once, ${code} ${err}")
  endif()
endforeach()

# Terminals, and streams that end: only here, where there are the means.
find_program(SCRIPT_PROGRAM script)
if(EMULATOR OR NOT SCRIPT_PROGRAM OR NOT UNIX)
  return()
endif()
function(expect_colours wanted)
  execute_process(
    COMMAND ${CMAKE_COMMAND} -E env --unset=NO_COLOR TERM=xterm ${ARGN}
      ${SCRIPT_PROGRAM} -qec "'${PROGRAM}' errors" /dev/null
    RESULT_VARIABLE code OUTPUT_VARIABLE out ERROR_VARIABLE err)
  string(FIND "${out}" "${ESC}[" place)
  if(place EQUAL -1)
    set(found OFF)
  else()
    set(found ON)
  endif()
  if(NOT code STREQUAL "0" OR NOT found STREQUAL wanted OR NOT out MATCHES "MEMERR_PACKCYCL")
    fail("on a terminal with ${ARGN}: colours ${found}, expected ${wanted}")
  endif()
endfunction()
expect_colours(ON)
expect_colours(OFF NO_COLOR=1)
expect_colours(OFF TERM=dumb)

foreach(word errors --help --version)
  execute_process(COMMAND ${PROGRAM} ${word} OUTPUT_FILE /dev/full
    RESULT_VARIABLE code ERROR_VARIABLE err)
  if(NOT code STREQUAL "3" OR NOT err MATCHES "^memtool: the output could not be written\n$")
    fail("a full disk goes unnoticed: ${word}")
  endif()
endforeach()

# Too little memory is one line. Where the sanitizers are, the program needs more than this to begin.
execute_process(COMMAND sh -c "ulimit -v 120000 && exec '${PROGRAM}' --version"
  RESULT_VARIABLE code OUTPUT_QUIET ERROR_QUIET)
if(code STREQUAL "0")
  execute_process(COMMAND sh -c "truncate -s 200M large && ulimit -v 120000 && exec '${PROGRAM}' chain large"
    WORKING_DIRECTORY ${WORK} RESULT_VARIABLE code OUTPUT_VARIABLE out ERROR_VARIABLE err)
  file(REMOVE ${WORK}/large)
  if(NOT code STREQUAL "3" OR NOT err MATCHES "^memtool: [^\n]*there is not enough memory\n$")
    fail("too little memory: ${code} ${err}")
  endif()
endif()

# A port string takes little more memory than its text and what the library reads, whether it has many
# structures (16 MB of text) or many elements (7 MB).
if(code STREQUAL "3")
  set(texts [[
    { printf '(0000000000,0000300000)'
      seq 2 300000 | rev | sed 's|.*|(1<1N503/2"a name"/3X81"a text of 16 chars"/4S&>)|' | tr -d '\n'
      printf '(1<1N/4S>)'; } > list.port
    { printf '(0000000000,0000000001)(1,000004<1N000004'
      seq 400000 | sed 's|.*|/2E(2<1N1/2"ab">)|' | tr -d '\n'
      printf '>)'; } > elements.port
  ]])
  execute_process(COMMAND sh -ec "${texts}" WORKING_DIRECTORY ${WORK} COMMAND_ERROR_IS_FATAL ANY)
  file(WRITE ${WORK}/list.json [[{"structures": [{"id": 1, "length": 48, "fields": [
    {"id": 1, "type": "Long", "offset": 0}, {"id": 2, "type": "CharSZ", "offset": 4, "length": 16},
    {"id": 3, "type": "PStr", "offset": 24},
    {"id": 4, "type": "Pnt", "offset": 32, "structure": 1}]}]}]])
  file(WRITE ${WORK}/elements.json [[{"structures": [
    {"id": 1, "length": 12, "countField": 1, "fields": [{"id": 1, "type": "Long", "offset": 0},
      {"id": 2, "type": "Substructure", "offset": 4, "structure": 2}]},
    {"id": 2, "length": 8, "fields": [{"id": 1, "type": "Long", "offset": 0},
      {"id": 2, "type": "Char", "offset": 4, "length": 4}]}]}]])
  foreach(name list elements)
    foreach(words "" "--json" "--defs ${name}.json" "--defs ${name}.json --json")
      execute_process(
        COMMAND sh -c "ulimit -v 90000 && exec '${PROGRAM}' port ${name}.port ${words} > /dev/null"
        WORKING_DIRECTORY ${WORK} RESULT_VARIABLE code ERROR_VARIABLE err)
      if(NOT code STREQUAL "0")
        fail("port ${name}.port ${words} takes more than 90 MB: ${code} ${err}")
      endif()
    endforeach()
  endforeach()
  file(REMOVE ${WORK}/list.port ${WORK}/elements.port)
endif()

# An old file survives a disk without room for the new one; special files are written as they are.
file(WRITE ${WORK}/old.svg "old")
execute_process(
  COMMAND sh -c "trap '' XFSZ; ulimit -f 1; exec '${PROGRAM}' chain '${chain}' --svg old.svg"
  WORKING_DIRECTORY ${WORK} RESULT_VARIABLE code OUTPUT_VARIABLE out ERROR_VARIABLE err)
file(READ ${WORK}/old.svg old)
file(GLOB left ${WORK}/old.svg.*)
if(NOT code STREQUAL "3" OR NOT old STREQUAL "old" OR left)
  fail("a full disk took the old file: ${left}")
endif()
execute_process(COMMAND ${PROGRAM} chain ${chain} --svg /dev/stdout
  RESULT_VARIABLE code OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT code STREQUAL "0" OR NOT out MATCHES "</svg>")
  fail("the picture is not on standard output")
endif()
