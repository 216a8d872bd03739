# The library's rooms are as its map draws them: a file includes only from its own room, from rooms
# on floors below and from include/, and asks about systems, processors and compilers in the
# platform room only.
#
#   cmake -DSOURCE=… -P rooms_test.cmake
#
# SOURCE  the folder SrcRes
cmake_minimum_required(VERSION 3.25)

# Rooms by floor, the lowest first. Rooms of one floor do not see each other.
set(floor_1 platform)
set(floor_2 frame base)
set(floor_3 heap cell hash cat sink process)
set(floor_4 pack port)
set(floor_5 binding)

# The standard library is open to all rooms; these headers belong to a system or a processor.
set(standard_header "^[a-z0-9_]+$")
set(faults "")

function(report path line what)
  set(faults "${faults}\n  ${path}: ${what}: ${line}" PARENT_SCOPE)
endfunction()

# The floor of a room, or 0.
function(find_floor result room)
  set(${result} 0 PARENT_SCOPE)
  foreach(floor RANGE 1 5)
    if(room IN_LIST floor_${floor})
      set(${result} ${floor} PARENT_SCOPE)
    endif()
  endforeach()
endfunction()

# What a file of `room` may not include.
function(check_include path room line)
  if(line MATCHES "#include <([^>]+)>")
    if(NOT room STREQUAL platform AND NOT CMAKE_MATCH_1 MATCHES "${standard_header}")
      report(${path} "${line}" "only the platform room may include this header")
    endif()
  elseif(line MATCHES "#include \"(([^/\"]+)/[^\"]+)\"")
    set(file ${CMAKE_MATCH_1})
    set(target ${CMAKE_MATCH_2})
    if(NOT target STREQUAL qj7mem00 AND NOT target STREQUAL room)
      find_floor(from ${room})
      find_floor(to ${target})
      if(to EQUAL 0 OR NOT EXISTS ${SOURCE}/${file})
        report(${path} "${line}" "there is no such file")
      elseif(NOT to LESS from)
        report(${path} "${line}" "an arrow that does not lead down")
      endif()
    endif()
  else()
    report(${path} "${line}" "an include names its room")
  endif()
  set(faults "${faults}" PARENT_SCOPE)
endfunction()

file(GLOB_RECURSE files RELATIVE ${SOURCE} ${SOURCE}/*.h ${SOURCE}/*.cpp)
list(LENGTH files count)
if(count LESS 50)
  message(FATAL_ERROR "Only ${count} files in ${SOURCE}")
endif()
set(names "")
foreach(path IN LISTS files)
  string(REGEX REPLACE "/.*" "" room ${path})
  find_floor(floor ${room})
  if(floor EQUAL 0)
    report(${path} "${room}" "no room of the house")
  endif()
  cmake_path(GET path FILENAME name)
  if(name IN_LIST names)
    report(${path} "${name}" "another file has this name")
  endif()
  list(APPEND names ${name})
  file(STRINGS ${SOURCE}/${path} lines REGEX "^ *# *(include|if|elif)")
  foreach(line IN LISTS lines)
    if(line MATCHES "^ *# *include")
      check_include(${path} ${room} "${line}")
    elseif(NOT room STREQUAL platform)
      report(${path} "${line}" "only the platform room asks about its surroundings")
    endif()
  endforeach()
endforeach()

# The map names every room.
file(READ ${SOURCE}/README.md map)
foreach(floor RANGE 1 5)
  foreach(room IN LISTS floor_${floor})
    if(NOT map MATCHES "`${room}/?`")
      report(README.md "${room}" "the map does not name this room")
    endif()
  endforeach()
endforeach()

if(faults)
  message(FATAL_ERROR "${SOURCE}:${faults}")
endif()
message(STATUS "${count} files, every arrow leads down")
