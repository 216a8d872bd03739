# Every command that README.md shows from its top to "Tests", and under "Install", works as written
# in a fresh clone, in the order of the page.
#
#   cmake -DSOURCE=… -DWORK=… -P readme_commands_test.cmake
#
# SOURCE  the tree; what it has beyond its last commit is in the clone, too
# WORK    folder of this test's own
#
# Commands are blocks marked sh. The only thing that is not as written is the prefix of the
# installation, which belongs to root.
cmake_minimum_required(VERSION 3.25)

set(clone ${WORK}/clone)
set(written_prefix /opt/qj7mem00)

function(run)
  execute_process(COMMAND ${ARGN} WORKING_DIRECTORY ${clone}
    RESULT_VARIABLE code OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT code STREQUAL "0")
    message(FATAL_ERROR "${ARGN}\nended with ${code}:\n${out}${err}")
  endif()
  set(out "${out}" PARENT_SCOPE)
endfunction()

# Commands under the headings that are asked for: leaves them in `commands`, and the number of blocks
# in `blocks`.
file(READ ${SOURCE}/README.md page)
set(commands "")
set(blocks 0)
set(heading "")
set(fence "")
string(REPLACE ";" "<semicolon>" page "${page}")
string(REPLACE "[" "<open>" page "${page}")
string(REPLACE "]" "<close>" page "${page}")
string(REPLACE "\\\n" "<goes on>" page "${page}")
string(REPLACE "\n" ";" page "${page}")
foreach(line IN LISTS page)
  if(line MATCHES "^```(.*)$" AND fence STREQUAL "")
    set(fence "in ${CMAKE_MATCH_1}")
    if(fence STREQUAL "in " AND NOT heading STREQUAL "Tests")
      message(FATAL_ERROR "README.md, ${heading}: a block that does not say what it is")
    endif()
    if(fence STREQUAL "in sh" AND NOT heading STREQUAL "Tests")
      math(EXPR blocks "${blocks} + 1")
    endif()
  elseif(line STREQUAL "```")
    set(fence "")
  elseif(line MATCHES "^## (.+)$" AND fence STREQUAL "")
    set(heading "${CMAKE_MATCH_1}")
  elseif(fence STREQUAL "in sh" AND NOT heading STREQUAL "Tests")
    string(APPEND commands "${line}\n")
  endif()
endforeach()
string(REPLACE "<semicolon>" ";" commands "${commands}")
string(REPLACE "<open>" "[" commands "${commands}")
string(REPLACE "<close>" "]" commands "${commands}")
string(REPLACE "<goes on>" "\\\n" commands "${commands}")
string(REPLACE "${written_prefix}" "${WORK}/prefix" commands "${commands}")
if(blocks LESS 6 OR NOT commands MATCHES "^./run.sh")
  message(FATAL_ERROR "README.md shows ${blocks} blocks of commands:\n${commands}")
endif()

file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${clone} ${WORK}/temp)
execute_process(COMMAND sh -c
    "git ls-files -co --exclude-standard -z | tar -c --null --ignore-failed-read -T - | tar -x -C \"$0\"" ${clone}
  WORKING_DIRECTORY ${SOURCE} COMMAND_ERROR_IS_FATAL ANY)

# Nothing is to be written into the folder for temporary files, which all users share. Compilers put
# their files there and take them away.
file(WRITE ${WORK}/commands.sh "set -e\n${commands}")
set(ENV{TMPDIR} ${WORK}/temp)
foreach(name MAKEFLAGS DESTDIR CMAKE_PREFIX_PATH LD_LIBRARY_PATH)
  unset(ENV{${name}})
endforeach()
run(bash ${WORK}/commands.sh)

foreach(text "equal to the catalogue" "MEMERR_PACKCYCL" "writer   little-endian")
  string(FIND "${out}" "${text}" place)
  if(place EQUAL -1)
    message(FATAL_ERROR "The commands did not print \"${text}\":\n${out}")
  endif()
endforeach()
string(REGEX MATCHALL "a string in a heap of 64 KB areas\n" hosts "${out}")
list(LENGTH hosts count)
if(NOT count EQUAL 3)  # built by run.sh, by hand against the tree, by hand against the prefix
  message(FATAL_ERROR "Expected the line of the host in 20 lines three times:\n${out}")
endif()

file(GLOB left ${WORK}/temp/*)
list(FILTER left EXCLUDE REGEX "/(ccache|Temp)")
if(left)
  message(FATAL_ERROR "Left in the folder for temporary files: ${left}")
endif()
file(GLOB left LIST_DIRECTORIES true RELATIVE ${clone} ${clone}/*)
file(GLOB tracked LIST_DIRECTORIES true RELATIVE ${SOURCE} ${SOURCE}/*)
list(REMOVE_ITEM left ${tracked} build)
if(left)
  message(FATAL_ERROR "Left in the clone, outside of build: ${left}")
endif()
