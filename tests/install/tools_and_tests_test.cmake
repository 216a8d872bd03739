# What a build lacks, it names: `ctest` the programs that are not built, a target its missing tool.
#
#   cmake -DSOURCE=… -DBUILD=… -DWORK=… -DGENERATOR=… -P tools_and_tests_test.cmake
#
# SOURCE, BUILD  the tree, and a build folder of it
# WORK           folder of this test's own
cmake_minimum_required(VERSION 3.25)

function(fail what)
  message(FATAL_ERROR "${what}; exit code ${code}:\n${out}")
endfunction()

macro(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE code OUTPUT_VARIABLE out ERROR_VARIABLE out)
endmacro()

# expect_text(<text>...): all of them were printed.
macro(expect_text)
  foreach(text ${ARGN})
    string(FIND "${out}" "${text}" place)
    if(place EQUAL -1)
      fail("expected \"${text}\"")
    endif()
  endforeach()
endmacro()

file(REMOVE_RECURSE ${WORK})

# Targets without their tools. Nothing is found in an empty path.
foreach(tool "docs doxygen doxygen docs" "tidy clang-tidy run-clang-tidy lint"
    "format clang-format clang-format lint")
  separate_arguments(tool UNIX_COMMAND "${tool}")
  list(POP_FRONT tool target package program job)
  if(target STREQUAL "format")  # the shell that it begins with is needed, too
    run(${CMAKE_COMMAND} -E env PATH=${WORK}
      ${SOURCE}/cmake/run-tool.sh format clang-format lint clang-format -i)
  elseif(target STREQUAL "docs")  # there is nothing to do where the build has made the site
    run(${CMAKE_COMMAND} -E env PATH=${WORK}
      ${SOURCE}/cmake/run-tool.sh docs doxygen docs doxygen Doxyfile)
  else()
    run(${CMAKE_COMMAND} -E env PATH=${WORK} ${CMAKE_COMMAND} --build ${BUILD} --target ${target})
  endif()
  if(code STREQUAL "0")
    fail("expected that ${target} fails without ${program}")
  endif()
  expect_text("The target ${target} needs ${program}, which is not installed (Debian package ${package})"
    "cmake/install-packages.sh ${job} installs it")
endforeach()

# A build folder in which nothing is built yet, and one that has no tests.
run(${CMAKE_COMMAND} -S ${SOURCE} -B ${WORK}/unbuilt -G ${GENERATOR} -DMEM_BENCH=OFF)
run(${CMAKE_CTEST_COMMAND} --test-dir ${WORK}/unbuilt -R "^(heap_test|cell_test)$")
expect_text("2 of these tests are not built. Build all of them, or one:\n"
  "  cmake --build \"${WORK}/unbuilt\"\n" "--target ")
run(${CMAKE_CTEST_COMMAND} --test-dir ${WORK}/unbuilt -R "^rooms_test$")  # runs no program
if(NOT code STREQUAL "0" OR out MATCHES "not built")
  fail("expected a run without a word on programs")
endif()
run(${CMAKE_CTEST_COMMAND} --test-dir ${WORK}/unbuilt -R "^c_example_test$"
  --output-on-failure)
expect_text("c_example is not built" "--target c_example")

run(${CMAKE_COMMAND} -S ${SOURCE} -B ${WORK}/none -G ${GENERATOR} -DMEM_BENCH=OFF -DMEM_TESTS=OFF)
run(${CMAKE_CTEST_COMMAND} --test-dir ${WORK}/none)
expect_text("This build has no tests" "cmake -DMEM_TESTS=ON")
