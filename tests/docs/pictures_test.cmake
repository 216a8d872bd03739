# Pictures of the README and the manual: each exists and has a text for those who do not see it; one
# that is drawn from a text is drawn from the text as it is now, and that of the house from the sources.
#
#   cmake -DROOT=… -P pictures_test.cmake
#
# ROOT  the root of the tree
cmake_minimum_required(VERSION 3.25)

file(GLOB texts ${ROOT}/docs/pictures/*.dot ${ROOT}/docs/pictures/*.json)
foreach(text IN LISTS texts)
  cmake_path(GET text FILENAME name)
  file(SHA256 ${text} sum)
  string(REGEX REPLACE "\\.[a-z]+$" ".svg" picture "${text}")
  file(STRINGS ${picture} made REGEX "^<!-- ${name} ${sum} -->$")
  if(NOT made)
    message(SEND_ERROR "${picture} is not what ${name} describes now; run docs/pictures/draw.sh")
  endif()
endforeach()

# The house is drawn as it is.
execute_process(COMMAND python3 -B ${ROOT}/docs/pictures/house.py OUTPUT_VARIABLE house
  COMMAND_ERROR_IS_FATAL ANY)
file(READ ${ROOT}/docs/pictures/house.dot drawn)
if(NOT house STREQUAL drawn)
  message(SEND_ERROR "docs/pictures/house.dot is not the house of SrcRes as it is now; run docs/pictures/draw.sh")
endif()

set(count 0)
file(GLOB pages ${ROOT}/README.md ${ROOT}/SrcRes/README.md ${ROOT}/docs/*.md)
foreach(page IN LISTS pages)
  file(READ ${page} content)
  cmake_path(GET page PARENT_PATH folder)
  string(REPLACE ";" "," content "${content}")
  string(REPLACE "![" "<picture>" content "${content}")
  string(REPLACE "[" "<open>" content "${content}")
  string(REPLACE "](" "<to>" content "${content}")
  string(REPLACE "]" "<close>" content "${content}")
  string(REGEX MATCHALL "<picture>[^<]*<to>[^)]*\\)" pictures "${content}")
  foreach(picture IN LISTS pictures)
    string(REGEX MATCH "^<picture>([^<]*)<to>([^)]*)\\)$" matched "${picture}")
    if(CMAKE_MATCH_1 STREQUAL "")
      message(SEND_ERROR "${page}: ${CMAKE_MATCH_2} has no text")
    endif()
    if(NOT EXISTS ${folder}/${CMAKE_MATCH_2})
      message(SEND_ERROR "${page} shows ${CMAKE_MATCH_2}, which does not exist")
    endif()
    math(EXPR count "${count} + 1")
  endforeach()
endforeach()
if(count LESS 10 OR NOT texts)
  message(SEND_ERROR "found only ${count} pictures")
endif()
