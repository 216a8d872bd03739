# The files that pages name in their tables exist.
#
#   cmake -DROOT=… -DPAGES=… -P named_files_test.cmake
#
# ROOT   the root of the tree
# PAGES  pages with the folders that the names of their files begin at, "docs/page.md=tests" or
#        "docs/page.md=tests+bench", with commas between pages; a file's name is in backquotes, with
#        its folder and ending
cmake_minimum_required(VERSION 3.25)

string(REPLACE "," ";" PAGES "${PAGES}")
foreach(pair ${PAGES})
  string(REPLACE "=" ";" pair ${pair})
  list(GET pair 0 page)
  list(GET pair 1 folders)
  string(REPLACE "+" ";" folders "${folders}")
  file(STRINGS ${ROOT}/${page} lines REGEX "^\\| ")
  string(REGEX MATCHALL "`[a-z]+/[A-Za-z0-9_/]+\\.(cpp|hpp|cmake|h|py)`" names "${lines}")
  list(LENGTH names count)
  if(count LESS 20)
    message(SEND_ERROR "${page} names only ${count} files")
  endif()
  foreach(name ${names})
    string(REPLACE "`" "" name ${name})
    set(isThere FALSE)
    foreach(folder ${folders})
      if(EXISTS ${ROOT}/${folder}/${name})
        set(isThere TRUE)
      endif()
    endforeach()
    if(NOT isThere)
      message(SEND_ERROR "${page} names ${name}, which is not in ${folders}")
    endif()
  endforeach()
endforeach()
