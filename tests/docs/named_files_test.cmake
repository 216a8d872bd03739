# The files that pages name in their tables exist.
#
#   cmake -DROOT=… -DPAGES=… -P named_files_test.cmake
#
# ROOT   the root of the tree
# PAGES  pages with the folder that the names of their files begin at, "docs/page.md=tests", with
#        commas between them; a file's name stands in backquotes, with its folder and ending
cmake_minimum_required(VERSION 3.25)

string(REPLACE "," ";" PAGES "${PAGES}")
foreach(pair ${PAGES})
  string(REPLACE "=" ";" pair ${pair})
  list(GET pair 0 page)
  list(GET pair 1 folder)
  file(STRINGS ${ROOT}/${page} lines REGEX "^\\| ")
  string(REGEX MATCHALL "`[a-z]+/[A-Za-z0-9_/]+\\.(cpp|hpp|cmake|h|py)`" names "${lines}")
  list(LENGTH names count)
  if(count LESS 20)
    message(SEND_ERROR "${page} names only ${count} files")
  endif()
  foreach(name ${names})
    string(REPLACE "`" "" name ${name})
    if(NOT EXISTS ${ROOT}/${folder}/${name})
      message(SEND_ERROR "${page} names ${name}, which is not in ${folder}")
    endif()
  endforeach()
endforeach()
