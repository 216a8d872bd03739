# A build differs in nothing from itself, and a run in which one side's packer writes the old control
# block differs in the packed bytes: the comparison reports it.
#
#   cmake -DPYTHON=… -DPROGRAM=… -DMODULE=… -P compare_builds_test.cmake
set(compare ${PYTHON} ${CMAKE_CURRENT_LIST_DIR}/compare_builds.py --program ${PROGRAM}
  ${MODULE} ${MODULE})

execute_process(COMMAND ${compare} --count 500 RESULT_VARIABLE result OUTPUT_VARIABLE output
  ERROR_VARIABLE output)
if(NOT result EQUAL 0 OR NOT output MATCHES "no case differs")
  message(FATAL_ERROR "a build differs from itself (${result}):\n${output}")
endif()

execute_process(COMMAND ${compare} --count 200 --kind graphs --new-option old-control-block
  RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
if(NOT result EQUAL 1 OR NOT output MATCHES "in MEM_Pack")
  message(FATAL_ERROR "a difference is not reported (${result}):\n${output}")
endif()
