# Below the standard that a header needs there is one message, which names the standard; from that
# standard on there is none.
#
#   cmake -DCC=… -DCXX=… -DINCLUDE=… -DHOST=… -DSOURCE=… -P header_standard_test.cmake
#
# CC, CXX  compilers with the options of g++ and clang, with commas between them
# INCLUDE  folder of the public headers
# HOST     folder of the reference host's header
# SOURCE   file to write what is compiled to
cmake_minimum_required(VERSION 3.25)
set(ENV{LC_ALL} "C")

# compile(<compiler> <language> <standard> <header>): leaves `code` and the number of `errors`.
function(compile compiler language standard header)
  file(WRITE ${SOURCE} "#include \"${header}\"\nint answer(void);\n")
  execute_process(COMMAND ${compiler} -x ${language} -std=${standard} -pedantic -Wall -Wextra
      -I${INCLUDE} -I${HOST} -fsyntax-only ${SOURCE}
    RESULT_VARIABLE code OUTPUT_VARIABLE messages ERROR_VARIABLE messages)
  string(REGEX MATCHALL "(error|warning): " found "${messages}")
  list(LENGTH found errors)
  foreach(name code errors messages)
    set(${name} "${${name}}" PARENT_SCOPE)
  endforeach()
endfunction()

function(expect_refused compiler language standard header text)
  compile(${compiler} ${language} ${standard} ${header})
  string(FIND "${messages}" "${text}" place)
  if(code STREQUAL "0" OR NOT errors EQUAL 1 OR place EQUAL -1)
    message(SEND_ERROR "${compiler} -std=${standard}, ${header}: expected only \"${text}\", "
      "found ${errors} messages:\n${messages}")
  endif()
endfunction()

function(expect_accepted compiler language standard header)
  compile(${compiler} ${language} ${standard} ${header})
  if(NOT code STREQUAL "0" OR NOT errors EQUAL 0)
    message(SEND_ERROR "${compiler} -std=${standard} refuses ${header}:\n${messages}")
  endif()
endfunction()

string(REPLACE "," ";" CC "${CC}")
string(REPLACE "," ";" CXX "${CXX}")
foreach(header qj7mem00/qj7mem00.h qj7mem00/memchk.h)
  foreach(compiler ${CC})
    foreach(standard c90 gnu90 c99 gnu99)
      expect_refused(${compiler} c ${standard} ${header} "qj7mem00.h needs C11 or later")
    endforeach()
    foreach(standard c11 gnu11 c17)
      expect_accepted(${compiler} c ${standard} ${header})
    endforeach()
  endforeach()
  foreach(compiler ${CXX})
    expect_refused(${compiler} c++ c++98 ${header} "qj7mem00.h needs C++11 or later")
    foreach(standard c++11 c++14 c++17 c++20 c++2b)
      expect_accepted(${compiler} c++ ${standard} ${header})
    endforeach()
  endforeach()
endforeach()
foreach(header qj7mem00/mem.hpp refhost.hpp)
  get_filename_component(name ${header} NAME)
  foreach(compiler ${CXX})
    foreach(standard c++11 c++14 c++17 gnu++17)
      expect_refused(${compiler} c++ ${standard} ${header} "${name} needs C++20 or later")
    endforeach()
    foreach(standard c++20 gnu++20 c++2b)
      expect_accepted(${compiler} c++ ${standard} ${header})
    endforeach()
  endforeach()
endforeach()
