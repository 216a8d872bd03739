# Pages, comments and messages use the words of words.txt and are spelled correctly.
#
#   cmake -DPYTHON=… -DCODESPELL=… -DWORK=… -P prose_test.cmake
#
# PYTHON     python3
# CODESPELL  codespell, or NOTFOUND: then only the words are checked
# WORK       folder for files with planted faults; emptied first
cmake_minimum_required(VERSION 3.25)

set(check ${PYTHON} -B ${CMAKE_CURRENT_LIST_DIR}/check_prose.py)
if(CODESPELL)
  list(APPEND check --codespell ${CODESPELL})
else()
  message(STATUS "The spelling is not checked: codespell is not installed "
    "(cmake/install-packages.sh docs installs it)")
endif()

# expect_findings(<file> <content> <line of a finding>...): the check finds these, and nothing else.
function(expect_findings file content)
  file(WRITE ${WORK}/${file} "${content}")
  execute_process(COMMAND ${check} ${WORK}/${file} RESULT_VARIABLE code OUTPUT_VARIABLE out)
  string(REGEX MATCHALL "${file}:[0-9]+: " found "${out}")
  list(TRANSFORM ARGN REPLACE "(.+)" "${file}:\\1: " OUTPUT_VARIABLE expected)
  if(NOT found STREQUAL expected OR (expected AND NOT code EQUAL 1))
    message(FATAL_ERROR "${file}: expected findings in lines ${ARGN}, exit code ${code}:\n${out}")
  endif()
endfunction()

# A banned word is found in the prose of each kind of file, also over the end of a line, and not in
# its code.
set(banned "to" "ld")
list(JOIN banned "" banned)
file(REMOVE_RECURSE ${WORK})
expect_findings(code.hpp "int ${banned} = 0;\n// is\n// ${banned}\nauto x = 'a', *y = \"${banned}\";\n"
  3 4)
expect_findings(comment.h "/** Good. */\nint a; /**< may be\n           had */\n" 2)
expect_findings(page.md "Good.\n\n```\n${banned}\n```\n```cpp\nint ${banned}; // ${banned}\n```\n`${banned}` ${banned}\n"
  7 9)
expect_findings(program.py "${banned} = 1  # ${banned}\n'''Text\n${banned}'''\n" 1 3)
expect_findings(script.sh "${banned}=1\n# ${banned}\necho \"${banned}\"\n" 2 3)
expect_findings(tool.1 ".SH NAME\nit \\fB${banned}\\fR\n" 2)
expect_findings(names.hpp "// Wording::standing, stands for, standard, understand\n")
if(CODESPELL)
  set(misspelled "rec")  # in two parts, because this file may be checked, too
  expect_findings(spelling.md "Good.\n${misspelled}ieve\n" 2)
endif()

execute_process(COMMAND ${check} RESULT_VARIABLE code OUTPUT_VARIABLE out ERROR_VARIABLE out)
if(NOT code EQUAL 0)
  message(FATAL_ERROR "${out}")
endif()
string(STRIP "${out}" out)
message(STATUS "${out}")
