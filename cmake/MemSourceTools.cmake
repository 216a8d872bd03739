# Targets that work on the sources: `tidy` reports, `format` rewrites, `docs` makes the reference.
# Without their tool they fail and say where to get it.

set(run_tool ${PROJECT_SOURCE_DIR}/cmake/run-tool.sh)

add_custom_target(format
  COMMAND sh -c "git ls-files -co --exclude-standard '*.h' '*.[ch]pp' | xargs \"$0\" \"$@\""
    ${run_tool} format clang-format lint clang-format -i
  WORKING_DIRECTORY ${PROJECT_SOURCE_DIR} COMMENT "clang-format over all sources" VERBATIM)

add_custom_target(tidy
  COMMAND ${run_tool} tidy clang-tidy lint
    run-clang-tidy -quiet -p ${PROJECT_BINARY_DIR} "^${PROJECT_SOURCE_DIR}/(SrcRes|check|host)/"
  WORKING_DIRECTORY ${PROJECT_SOURCE_DIR} COMMENT "clang-tidy over SrcRes, check and host" VERBATIM)

# The reference of the public headers, in <build folder>/reference/html. Any warning is a failure.
configure_file(docs/reference/Doxyfile.in ${PROJECT_BINARY_DIR}/Doxyfile @ONLY)
add_custom_target(docs
  COMMAND ${run_tool} docs doxygen docs doxygen ${PROJECT_BINARY_DIR}/Doxyfile
  COMMENT "Doxygen over include and host/refhost.hpp" VERBATIM)
find_program(MEM_DOXYGEN doxygen)
if(MEM_TESTS AND MEM_DOXYGEN AND CMAKE_BUILD_TYPE STREQUAL "Release" AND NOT CMAKE_CROSSCOMPILING)
  add_test(NAME docs_test COMMAND ${MEM_DOXYGEN} ${PROJECT_BINARY_DIR}/Doxyfile)
endif()
