# The page on overwrites: its program under the checking layer, and with it under each available
# memory checker.

set(page ${docs}/find-an-overwrite.md)
mem_add_manual_program(find_an_overwrite ${page})
target_compile_options(find_an_overwrite PRIVATE $<$<NOT:$<CXX_COMPILER_ID:MSVC>>:-g>)

function(mem_add_overwrite_test name program)
  list(TRANSFORM ARGN PREPEND -D OUTPUT_VARIABLE definitions)
  mem_add_entry(${name} ${CMAKE_COMMAND} -DPROGRAM=$<TARGET_FILE:${program}> -DPAGE=${page}
    -DWORK=${CMAKE_CURRENT_BINARY_DIR}/${program}.work ${definitions}
    "-DEMULATOR=${CMAKE_CROSSCOMPILING_EMULATOR}"
    -P ${CMAKE_CURRENT_SOURCE_DIR}/overwrite_manual_test.cmake)
endfunction()

if(MEM_SANITIZE MATCHES "address")
  mem_add_overwrite_test(overwrite_manual_test find_an_overwrite CHECKER=asan)
elseif(NOT MEM_SANITIZE)
  mem_add_overwrite_test(overwrite_manual_test find_an_overwrite)
  if(NOT WIN32 AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    mem_add_manual_program(find_an_overwrite_asan ${page})
    target_compile_options(find_an_overwrite_asan PRIVATE -fsanitize=address -g)
    target_link_options(find_an_overwrite_asan PRIVATE -fsanitize=address)
    mem_add_overwrite_test(overwrite_manual_test/asan find_an_overwrite_asan CHECKER=asan)
  endif()
  find_program(MEM_VALGRIND valgrind)
  if(MEM_VALGRIND AND MEM_HAVE_VALGRIND AND NOT WIN32)
    mem_add_overwrite_test(overwrite_manual_test/valgrind find_an_overwrite CHECKER=valgrind
      VALGRIND=${MEM_VALGRIND} SUPPRESSIONS=${PROJECT_SOURCE_DIR}/check/valgrind.supp)
  endif()
endif()
