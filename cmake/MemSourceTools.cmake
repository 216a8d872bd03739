# Targets that work on the sources: `tidy` reports, `format` rewrites. Without their tool they fail.

find_program(MEM_CLANG_FORMAT clang-format)
add_custom_target(format
  COMMAND sh -c "git ls-files -co --exclude-standard '*.h' '*.[ch]pp' | xargs \"$0\" -i"
    ${MEM_CLANG_FORMAT}
  WORKING_DIRECTORY ${CMAKE_SOURCE_DIR} COMMENT "clang-format over all sources" VERBATIM)

find_program(MEM_RUN_CLANG_TIDY run-clang-tidy)
add_custom_target(tidy
  COMMAND ${MEM_RUN_CLANG_TIDY} -quiet -p ${CMAKE_BINARY_DIR} "^${CMAKE_SOURCE_DIR}/(SrcRes|host)/"
  WORKING_DIRECTORY ${CMAKE_SOURCE_DIR} COMMENT "clang-tidy over SrcRes and host" VERBATIM)
