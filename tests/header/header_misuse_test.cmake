# Misuses of mem.hpp must fail to compile, with a message that says why; its right use must compile
# with every available compiler.
#
#   cmake -DCOMPILERS=… -DINCLUDE=… -DWORK=… -P header_misuse_test.cmake
#
# COMPILERS  C++ compilers, with commas between them
# INCLUDE    folder of the public headers
# WORK       folder for the header, compiled once for all misuses; emptied first
cmake_minimum_required(VERSION 3.25)

string(REPLACE "," ";" COMPILERS "${COMPILERS}")
set(flags -std=c++20 -Wall -Wextra -Wconversion -Wshadow -Werror -Winvalid-pch)
set(misuse ${CMAKE_CURRENT_LIST_DIR}/header_misuse.cpp)
set(use ${CMAKE_CURRENT_LIST_DIR}/header_use.cpp)
file(STRINGS ${misuse} cases REGEX "^#(el)?if CASE == ")
set(ENV{LC_ALL} "C")

# Compiles a file; leaves the exit code and the messages in `code` and `messages`.
macro(compile)
  execute_process(COMMAND ${compiler} ${flags} ${ARGN} -I${INCLUDE}
    RESULT_VARIABLE code OUTPUT_VARIABLE messages ERROR_VARIABLE messages)
endmacro()

foreach(compiler ${COMPILERS})
  foreach(options "" "-fno-exceptions;-fno-rtti")
    compile(${options} -fsyntax-only ${use})
    if(NOT code STREQUAL "0")
      message(FATAL_ERROR "${compiler} ${options} ${use}:\n${messages}")
    endif()
  endforeach()
endforeach()

# Compiles the header once for all cases and leaves the flags that make use of it in `precompiled`;
# g++ finds it before the header itself.
macro(precompile)
  file(REMOVE_RECURSE ${WORK})
  file(MAKE_DIRECTORY ${WORK}/qj7mem00)
  set(precompiled -I${WORK} -fsyntax-only)
  if(compiler MATCHES "clang")
    set(precompiled -include-pch ${WORK}/qj7mem00/mem.hpp.gch -fsyntax-only)
  endif()
  compile(-x c++-header ${INCLUDE}/qj7mem00/mem.hpp -o ${WORK}/qj7mem00/mem.hpp.gch)
  if(NOT code STREQUAL "0")
    message(FATAL_ERROR "${compiler} does not precompile the header:\n${messages}")
  endif()
endmacro()

set(checked 0)
foreach(compiler ${COMPILERS})
  # What the compilers for other platforms refuse is no different.
  if(compiler MATCHES "mingw")
    continue()
  endif()
  precompile()
  foreach(case ${cases})
    if(NOT case MATCHES "CASE == ([0-9]+)  // (.+)$")
      message(FATAL_ERROR "${misuse}: ${case}")
    endif()
    set(number ${CMAKE_MATCH_1})
    set(wanted "${CMAKE_MATCH_2}")
    compile(-DCASE=${number} ${precompiled} ${misuse})
    if(number EQUAL 0)
      if(NOT code STREQUAL "0")
        message(FATAL_ERROR "${compiler} refuses what is right:\n${messages}")
      endif()
      continue()
    endif()
    if(wanted STREQUAL "use of deleted function" AND compiler MATCHES "clang")
      set(wanted "deleted")
    endif()
    string(FIND "${messages}" "${wanted}" place)
    if(code STREQUAL "0" OR place EQUAL -1)
      message(FATAL_ERROR
        "${compiler}, case ${number}: expected \"${wanted}\", exit code ${code}\n${messages}")
    endif()
    math(EXPR checked "${checked} + 1")
  endforeach()
endforeach()
message(STATUS "${checked} misuses refused")
