# What pages of the manual show, compared with what their programs do. Addresses, times and offsets
# differ from run to run; the page has those of one.

# mask(<variable>)
# Replaces in a text what differs from run to run.
function(mask variable)
  set(text "${${variable}}")
  set(digit "[0-9A-F]")
  set(four "${digit}${digit}${digit}${digit}")
  string(REGEX REPLACE "${four}${four}${four}${four}" "ADDRESS" text "${text}")
  # In trace records they are numbers without leading zeros.
  string(REGEX REPLACE "([hp][A-Za-z]+|Return)=${digit}+" "\\1=ADDRESS" text "${text}")
  string(REGEX REPLACE "[0-9]+\\.[0-9][0-9][0-9]" "TIME" text "${text}")
  string(REGEX REPLACE "0x[0-9A-Fa-f]+" "OFFSET" text "${text}")
  set(${variable} "${text}" PARENT_SCOPE)
endfunction()

# read_page(<page>)
# Leaves its text in `page`, masked.
function(read_page path)
  file(READ ${path} page)
  string(REPLACE "\r\n" "\n" page "${page}")
  mask(page)
  set(page "${page}" PARENT_SCOPE)
endfunction()

# expect_lines(<text> <excerpt>)
# The lines of the excerpt are in the text, in this order; its lines "..." stand for any others.
function(expect_lines text excerpt)
  string(REPLACE ";" "," rest "${text}")
  string(REPLACE ";" "," excerpt "${excerpt}")
  string(REPLACE "\n" ";" lines "${excerpt}")
  foreach(line IN LISTS lines)
    if(line STREQUAL "" OR line STREQUAL "...")
      continue()
    endif()
    string(FIND "${rest}" "${line}\n" place)
    if(place EQUAL -1)
      fail("${PAGE} shows, at this place:\n${line}")
    endif()
    string(LENGTH "${line}" length)
    math(EXPR place "${place} + ${length}")
    string(SUBSTRING "${rest}" ${place} -1 rest)
  endforeach()
endfunction()

# shown_block(<fence> <number> <result>)
# Leaves in <result> the text of the page's block with this number, from 0, among those that begin
# with the fence.
function(shown_block fence number result)
  set(rest "${page}")
  foreach(i RANGE ${number})
    string(FIND "${rest}" "\n${fence}\n" place)
    if(place EQUAL -1)
      message(FATAL_ERROR "${PAGE} has no block ${number} that begins with ${fence}")
    endif()
    string(LENGTH "\n${fence}\n" length)
    math(EXPR place "${place} + ${length}")
    string(SUBSTRING "${rest}" ${place} -1 rest)
  endforeach()
  string(FIND "${rest}" "```\n" place)
  string(SUBSTRING "${rest}" 0 ${place} block)
  set(${result} "${block}" PARENT_SCOPE)
endfunction()
