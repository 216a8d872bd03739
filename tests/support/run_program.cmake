# How scripts run the programs of a build, as a user does. What they say of themselves goes by these
# variables of the script:
#
# PROGRAM   the program; messages begin with its name
# EMULATOR  command that runs a program for another platform, as a list
# WORK      folder for the files of a test, where it has any; emptied first

# Wine's own messages would mix with the program's, and it reads names in the locale's encoding.
set(ENV{WINEDEBUG} "-all")
set(ENV{LC_ALL} "C.UTF-8")
cmake_path(GET PROGRAM STEM program_name)
if(NOT EXISTS ${PROGRAM})
  message(FATAL_ERROR "${program_name} is not built. Build it:\n"
    "  cmake --build <build folder> --target ${program_name}")
endif()
if(WORK)
  file(REMOVE_RECURSE ${WORK})
  file(MAKE_DIRECTORY ${WORK})
else()
  set(WORK .)
endif()

# Runs the program in WORK and leaves its exit code, stdout and stderr in `code`, `out` and `err`.
macro(run_program)
  execute_process(
    COMMAND ${EMULATOR} ${PROGRAM} ${ARGN}
    WORKING_DIRECTORY ${WORK}
    RESULT_VARIABLE code
    OUTPUT_VARIABLE out
    ERROR_VARIABLE err)
  string(REPLACE "\r\n" "\n" out "${out}")
  string(REPLACE "\r\n" "\n" err "${err}")
endmacro()

function(fail what)
  message(FATAL_ERROR "${what}\nexit code ${code}\nstdout:\n${out}\nstderr:\n${err}")
endfunction()

# The program must succeed and say nothing on stderr.
macro(expect_success)
  run_program(${ARGN})
  if(NOT code STREQUAL "0" OR NOT err STREQUAL "")
    fail("${program_name} ${ARGN}: expected success")
  endif()
endmacro()

# The arguments must end the program with code `wanted` and one line on stderr that has `text`.
function(expect_refused wanted text)
  run_program(${ARGN})
  string(FIND "${err}" "${text}" place)
  if(NOT code STREQUAL wanted OR NOT err MATCHES "^${program_name}: [^\n]+\n$" OR place EQUAL -1)
    fail("${program_name} ${ARGN}: expected code ${wanted} and one line with \"${text}\" on stderr")
  endif()
  if(NOT out STREQUAL "")
    fail("${program_name} ${ARGN}: expected nothing on stdout")
  endif()
endfunction()
