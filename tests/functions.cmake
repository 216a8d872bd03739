# Ways to add tests, for the rooms of tests/.

# report_signal_unsafe: the host's exception filter runs where a fault happened, in a signal handler.
set(MEM_TEST_ENVIRONMENT
  ASAN_OPTIONS=detect_stack_use_after_return=1:strict_string_checks=1:check_initialization_order=1
  UBSAN_OPTIONS=print_stacktrace=1
  TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1:report_signal_unsafe=0)

# What is tested is the finished library. The tests' own code is compiled quickly in builds that
# optimise.
set(MEM_QUICK_COMPILING
  $<$<AND:$<CONFIG:Release,RelWithDebInfo>,$<NOT:$<CXX_COMPILER_ID:MSVC>>>:-O0>)

# mem_add_entry(<name> <command>...)
# One entry for CTest, run in the folder of the programs.
function(mem_add_entry name)
  add_test(NAME ${name} COMMAND ${ARGN} WORKING_DIRECTORY ${CMAKE_RUNTIME_OUTPUT_DIRECTORY})
  set_tests_properties(${name} PROPERTIES TIMEOUT 600 ENVIRONMENT "${MEM_TEST_ENVIRONMENT}")
endfunction()

# mem_add_label(<name> <label>)
# `ctest -L <label>` runs the entry, too.
function(mem_add_label name label)
  set_property(TEST ${name} APPEND PROPERTY LABELS ${label})
endfunction()

# mem_note_program(<name>)
# Notes that the entry of this name runs the program of this name; see cmake/name-unbuilt-tests.cmake.
function(mem_note_program name)
  set_property(GLOBAL APPEND_STRING PROPERTY MEM_TEST_PROGRAMS "${name} $<TARGET_FILE:${name}>\n")
endfunction()

# mem_add_test(<name> <source>... [THREADS] [INTERNALS] [UNVALIDATED <filter>] [UNCHECKED <filter>]
#              [LABELS <label>...] [LINK <library>...])
# One program of GoogleTest cases, and one entry for all of its cases: starting a program under Wine
# takes longer than most cases. The program loads the real library and sees only what hosts see.
# THREADS    it runs several threads: it has the label "thread" and is run under the thread
#            sanitizer too
# INTERNALS  it links the library's objects and sees its internals
# LABELS     further labels, for `ctest -L`; "compiler": see compiler_tests; "model": it runs at
#            random against a model, and in builds that check once more against the library that
#            validates, as validate/<name>
# UNVALIDATED  cases that are left out there: a walk through their structures at every operation
#            takes minutes
# UNCHECKED  cases that are left out, "*" for all, where the program of a release build for this
#            machine runs once more under the checking layer, as checked/<name>: they look at the
#            places of entries, at bytes around them and in freed ones, at the order in which cells
#            come again, or misuse entries and cells
function(mem_add_test name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "THREADS;INTERNALS" "UNVALIDATED;UNCHECKED" "LABELS;LINK")
  add_executable(${name} ${arg_UNPARSED_ARGUMENTS})
  target_link_libraries(${name} PRIVATE test_support mem_warnings GTest::gtest_main ${arg_LINK})
  add_dependencies(${name} QJ7MEM00)
  target_compile_options(${name} PRIVATE ${MEM_QUICK_COMPILING})
  if(MEM_PCH)
    target_precompile_headers(${name} REUSE_FROM test_precompiled)
  endif()
  if(arg_INTERNALS)
    target_sources(${name} PRIVATE $<TARGET_OBJECTS:QJ7MEM00>)
    target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR}/SrcRes)
  endif()
  mem_add_entry(${name} ${name})
  mem_note_program(${name})
  foreach(label ${arg_LABELS})
    mem_add_label(${name} ${label})
  endforeach()
  if("compiler" IN_LIST arg_LABELS)
    add_dependencies(compiler_tests ${name})
  endif()
  if("model" IN_LIST arg_LABELS AND TARGET QJ7MEM00_validate)
    mem_add_entry(validate/${name} ${name} --gtest_filter=-${arg_UNVALIDATED})
    mem_add_label(validate/${name} model)
    set_property(TEST validate/${name} APPEND PROPERTY
      ENVIRONMENT MEM_TEST_MODULE=$<TARGET_FILE:QJ7MEM00_validate>)
  endif()
  if(CMAKE_BUILD_TYPE STREQUAL "Release" AND NOT MEM_SANITIZE AND NOT CMAKE_CROSSCOMPILING
      AND NOT arg_UNCHECKED STREQUAL "*")
    mem_add_entry(checked/${name} ${name} --gtest_filter=-${arg_UNCHECKED})
    mem_add_label(checked/${name} checked)
    set_property(TEST checked/${name} APPEND PROPERTY ENVIRONMENT MEM_CHECKED=1)
    # Both write into the program's folder of files.
    set_property(TEST ${name} checked/${name} APPEND PROPERTY RESOURCE_LOCK ${name})
  endif()
  if(arg_THREADS)
    mem_add_label(${name} thread)
    add_dependencies(thread_tests ${name})
  endif()
endfunction()

# mem_add_script(<name> [<variable>=<value>...])
# An entry that runs <name>.cmake. The script starts the programs of this build with ${EMULATOR}
# before them, which is empty for programs of this machine.
function(mem_add_script name)
  list(TRANSFORM ARGN PREPEND -D OUTPUT_VARIABLE definitions)
  mem_add_entry(${name} ${CMAKE_COMMAND} ${definitions} "-DEMULATOR=${CMAKE_CROSSCOMPILING_EMULATOR}"
    -P ${CMAKE_CURRENT_SOURCE_DIR}/${name}.cmake)
endfunction()
