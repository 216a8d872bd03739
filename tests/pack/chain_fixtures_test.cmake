# The program that writes the fixtures still makes the files that are kept, and no others.
# PROGRAM, WORK, CHAINS and SEEDS are given.

file(REMOVE_RECURSE ${WORK})
execute_process(COMMAND ${EMULATOR} ${PROGRAM} ${WORK}/chains ${WORK}/seeds RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "the program ended with ${result}")
endif()

function(compare_folders kept written)
  file(GLOB keptNames RELATIVE ${kept} ${kept}/*)
  file(GLOB writtenNames RELATIVE ${written} ${written}/*)
  if(NOT "${keptNames}" STREQUAL "${writtenNames}" OR keptNames STREQUAL "")
    message(FATAL_ERROR "${kept} holds ${keptNames}, the program writes ${writtenNames}")
  endif()
  foreach(name IN LISTS keptNames)
    file(SHA256 ${kept}/${name} keptHash)
    file(SHA256 ${written}/${name} writtenHash)
    if(NOT keptHash STREQUAL writtenHash)
      message(FATAL_ERROR "${kept}/${name} differs from what the program writes")
    endif()
  endforeach()
endfunction()

compare_folders(${CHAINS} ${WORK}/chains)
compare_folders(${SEEDS} ${WORK}/seeds)
