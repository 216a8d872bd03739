# Targets for the sources: `tidy` checks them, `format` formats them. If the tool is missing, they fail
# and name its package.

add_custom_target(format
  COMMAND sh -c "git ls-files -co --exclude-standard '*.h' '*.[ch]pp' | xargs \"$0\" \"$@\""
    ${run_tool} format clang-format lint clang-format -i
  WORKING_DIRECTORY ${PROJECT_SOURCE_DIR} COMMENT "clang-format over all sources" VERBATIM)

add_custom_target(tidy
  COMMAND ${run_tool} tidy clang-tidy lint
    run-clang-tidy -quiet -p ${PROJECT_BINARY_DIR} "^${PROJECT_SOURCE_DIR}/(SrcRes|check|host)/"
  WORKING_DIRECTORY ${PROJECT_SOURCE_DIR} COMMENT "clang-tidy over SrcRes, check and host" VERBATIM)
