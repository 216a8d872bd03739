# Examples in pages of the manual. A page marks its example, and what it prints, by comments that
# readers do not see:
#
#   <!-- example -->
#   ```c
#   int example(const MEMFunctionVector *mem) { … }
#   ```
#   <!-- output -->
#   ```
#   …
#   ```

# mem_marked_block(<page> <mark> <result>)
# Leaves in <result> the text of the fenced block after the line `<!-- mark -->` of a page; empty
# when the page has no such line.
function(mem_marked_block page mark result)
  file(READ ${page} text)
  string(REPLACE "\r\n" "\n" text "${text}")
  set(line "\n<!-- ${mark} -->\n```")
  string(FIND "${text}" "${line}" place)
  if(place EQUAL -1)
    set(${result} "" PARENT_SCOPE)
    return()
  endif()
  string(LENGTH "${line}" length)
  math(EXPR place "${place} + ${length}")
  string(SUBSTRING "${text}" ${place} -1 text)
  string(FIND "${text}" "\n" begin)  # the end of the fence, which may name a language
  string(FIND "${text}" "\n```\n" end)
  math(EXPR length "${end} - ${begin}")
  math(EXPR begin "${begin} + 1")
  string(SUBSTRING "${text}" ${begin} ${length} text)
  set(${result} "${text}" PARENT_SCOPE)
endfunction()

# mem_expect_source(<page> <source>)
# Fails unless the page shows the C++ source line by line.
function(mem_expect_source page source)
  file(READ ${page} shown)
  file(READ ${source} wanted)
  string(REPLACE "\r\n" "\n" shown "${shown}")
  string(REPLACE "\r\n" "\n" wanted "${wanted}")
  string(FIND "${shown}" "```cpp\n${wanted}```\n" place)
  if(place EQUAL -1)
    message(FATAL_ERROR "${page} does not show ${source} line by line")
  endif()
endfunction()

# Programs in pages of the manual. Each file of a program is marked with its folder and name, and
# what the program prints with the folder:
#
#   <!-- file words/words.c -->
#   ```c
#   …
#   ```
#   <!-- output words -->
#   ```
#   …
#   ```

# mem_marked_files(<page> <result>)
# Leaves in <result> the names of the marked files, "words/words.c", as a list.
function(mem_marked_files page result)
  file(STRINGS ${page} marks REGEX "^<!-- file [a-z_]+/[a-z_.]+ -->$")
  list(TRANSFORM marks REPLACE "^<!-- file ([^ ]+) -->$" "\\1")
  set(${result} "${marks}" PARENT_SCOPE)
endfunction()
