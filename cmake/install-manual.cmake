# Installs the manual: README.md, CHANGELOG.md, docs/ and the sources of the examples, in the same
# folders relative to each other. A link to any other file becomes its text.
#
# MEM_FROM  the root of the tree
# MEM_TO    the folder to install to

file(COPY ${MEM_FROM}/docs DESTINATION ${MEM_TO}
  FILES_MATCHING PATTERN *.md PATTERN *.svg PATTERN site EXCLUDE)
file(COPY ${MEM_FROM}/README.md ${MEM_FROM}/CHANGELOG.md DESTINATION ${MEM_TO})
file(COPY ${MEM_FROM}/examples DESTINATION ${MEM_TO} PATTERN CMakeLists.txt EXCLUDE)

# mem_unlink_prose(<variable> <folder>): the same for a text in which <open> and <close> mark brackets
# and links are relative to the folder.
function(mem_unlink_prose variable folder)
  set(text "${${variable}}")
  string(REGEX MATCHALL "${open}[^${open}${close}]+${close}\\([^) ]+\\)" links "${text}")
  list(REMOVE_DUPLICATES links)
  foreach(link IN LISTS links)
    string(REGEX MATCH "^${open}(.+)${close}\\(([^)#]*)(#.*)?\\)$" matched "${link}")
    set(shown "${CMAKE_MATCH_1}")
    set(target "${CMAKE_MATCH_2}")
    if(NOT target MATCHES "^[a-z]+:" AND NOT EXISTS ${folder}/${target})
      string(REPLACE "${link}" "${shown}" text "${text}")
    endif()
  endforeach()
  set(${variable} "${text}" PARENT_SCOPE)
endfunction()

# mem_unlink(<page>): in the page, links to missing files become their texts.
function(mem_unlink page)
  file(READ ${page} text)
  cmake_path(GET page PARENT_PATH folder)
  # Brackets and semicolons have a meaning in lists.
  string(ASCII 1 open)
  string(ASCII 2 close)
  string(ASCII 3 semicolon)
  string(REPLACE "[" "${open}" text "${text}")
  string(REPLACE "]" "${close}" text "${text}")
  string(REPLACE ";" "${semicolon}" text "${text}")
  # Prose and fenced code alternate; brackets in code are no links.
  string(ASCII 4 fence)
  string(REPLACE "\n```" "${fence};" parts "${text}")
  set(text "")
  set(is_code FALSE)
  foreach(part IN LISTS parts)
    if(NOT is_code)
      mem_unlink_prose(part ${folder})
    endif()
    string(APPEND text "${part}")
    if(is_code)
      set(is_code FALSE)
    else()
      set(is_code TRUE)
    endif()
  endforeach()
  string(REPLACE "${fence}" "\n```" text "${text}")
  string(REPLACE "${open}" "[" text "${text}")
  string(REPLACE "${close}" "]" text "${text}")
  string(REPLACE "${semicolon}" ";" text "${text}")
  file(WRITE ${page} "${text}")
endfunction()

file(GLOB pages ${MEM_TO}/*.md ${MEM_TO}/docs/*.md)
foreach(page IN LISTS pages)
  mem_unlink(${page})
endforeach()
