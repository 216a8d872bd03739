# The commands that a page shows work as written, in the order of the page, on the files that it
# shows: compilers find what they name, and programs run.
#
#   cmake -DPAGE=… -DCOMMANDS=… -DSOURCE=… -DMODULE=… -DHOST=… -DCHECK=… -DWORK=… [-DSAVED=…]
#         -P page_commands_test.cmake
#
# SOURCE, MODULE, HOST, CHECK  the tree, and the library and the archives that a build has made of it
# WORK      folder of this test's own, which looks like the tree to the commands
# SAVED     the name under which the page has its first C++ block saved; other files are marked
# COMMANDS  how many commands the page has; those that install packages and build the tree are left
#           out, and those for a debugger
cmake_minimum_required(VERSION 3.25)
include(${CMAKE_CURRENT_LIST_DIR}/manual_example.cmake)

file(REMOVE_RECURSE ${WORK})
foreach(folder host check bin)
  file(MAKE_DIRECTORY ${WORK}/build/release/${folder})
endforeach()
file(CREATE_LINK ${HOST} ${WORK}/build/release/host/librefhost.a SYMBOLIC)
file(CREATE_LINK ${CHECK} ${WORK}/build/release/check/libmemchk.a SYMBOLIC)
file(COPY ${MODULE} DESTINATION ${WORK}/build/release/bin)
foreach(folder include host check)
  file(CREATE_LINK ${SOURCE}/${folder} ${WORK}/${folder} SYMBOLIC)
endforeach()

# Files of the page.
file(READ ${PAGE} page)
mem_marked_files(${PAGE} files)
foreach(file IN LISTS files)
  mem_marked_block(${PAGE} "file ${file}" content)
  file(WRITE ${WORK}/${file} "${content}")
endforeach()
if(SAVED)
  string(FIND "${page}" "\n```cpp\n" begin)
  math(EXPR begin "${begin} + 8")
  string(SUBSTRING "${page}" ${begin} -1 content)
  string(FIND "${content}" "\n```\n" end)
  math(EXPR end "${end} + 1")
  string(SUBSTRING "${content}" 0 ${end} content)
  file(WRITE ${WORK}/${SAVED} "${content}")
endif()

# Lines of blocks without a language that compile or run a program; the rest is what programs print.
string(REPLACE ";" "<semicolon>" page "${page}")
string(REPLACE "[" "<open>" page "${page}")
string(REPLACE "]" "<close>" page "${page}")
string(REPLACE "\\\n" "" page "${page}")
string(REPLACE "\n" ";" page "${page}")
set(fence "")
set(count 0)
foreach(line IN LISTS page)
  if(line MATCHES "^```(.*)$")
    if(fence STREQUAL "")
      set(fence "in ${CMAKE_MATCH_1}")
    else()
      set(fence "")
    endif()
  elseif(fence STREQUAL "in " AND line MATCHES "^(MEM_CHECKED=1 )?(gcc|g\\+\\+|valgrind|build/release/bin/)")
    math(EXPR count "${count} + 1")
    execute_process(COMMAND sh -c "${line}" WORKING_DIRECTORY ${WORK}
      RESULT_VARIABLE code OUTPUT_VARIABLE out ERROR_VARIABLE err)
    # A program that reports something ends with 1.
    if(NOT code STREQUAL "0" AND NOT (code STREQUAL "1" AND line MATCHES "build/release/bin/[a-z_]+$"))
      message(FATAL_ERROR "${PAGE}: ${line}\nended with ${code}:\n${out}${err}")
    endif()
  endif()
endforeach()
if(NOT count EQUAL COMMANDS)
  message(FATAL_ERROR "${PAGE} has ${count} commands, expected ${COMMANDS}")
endif()
