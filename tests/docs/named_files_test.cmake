# The files that a page names in its tables exist.
#
#   cmake -DPAGE=… -DBASE=… -P named_files_test.cmake
#
# PAGE  a page of the manual; a file's name stands in backquotes, with its folder and ending
# BASE  the folder that the names begin at
cmake_minimum_required(VERSION 3.25)

file(STRINGS ${PAGE} lines REGEX "^\\| ")
string(REGEX MATCHALL "`[a-z]+/[A-Za-z0-9_/]+\\.(cpp|hpp|cmake|h)`" names "${lines}")
list(LENGTH names count)
if(count LESS 20)
  message(FATAL_ERROR "${PAGE} names only ${count} files")
endif()
foreach(name ${names})
  string(REPLACE "`" "" name ${name})
  if(NOT EXISTS ${BASE}/${name})
    message(SEND_ERROR "${PAGE} names ${name}, which is not in ${BASE}")
  endif()
endforeach()
message(STATUS "${count} files")
