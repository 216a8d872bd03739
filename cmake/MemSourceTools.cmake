# Targets that work on the sources: `tidy` reports, `format` rewrites, `docs` makes the reference.
# Without their tool they fail.

find_program(MEM_CLANG_FORMAT clang-format)
add_custom_target(format
  COMMAND sh -c "git ls-files -co --exclude-standard '*.h' '*.[ch]pp' | xargs \"$0\" -i"
    ${MEM_CLANG_FORMAT}
  WORKING_DIRECTORY ${CMAKE_SOURCE_DIR} COMMENT "clang-format over all sources" VERBATIM)

find_program(MEM_RUN_CLANG_TIDY run-clang-tidy)
add_custom_target(tidy
  COMMAND ${MEM_RUN_CLANG_TIDY} -quiet -p ${CMAKE_BINARY_DIR} "^${CMAKE_SOURCE_DIR}/(SrcRes|check|host)/"
  WORKING_DIRECTORY ${CMAKE_SOURCE_DIR} COMMENT "clang-tidy over SrcRes, check and host" VERBATIM)

# The reference of the public headers, in <build folder>/reference/html. Any warning is a failure.
find_program(MEM_DOXYGEN doxygen)
configure_file(docs/reference/Doxyfile.in ${CMAKE_BINARY_DIR}/Doxyfile @ONLY)
add_custom_target(docs COMMAND ${MEM_DOXYGEN} ${CMAKE_BINARY_DIR}/Doxyfile
  COMMENT "Doxygen over include and host/refhost.hpp" VERBATIM)
if(MEM_TESTS AND MEM_DOXYGEN AND CMAKE_BUILD_TYPE STREQUAL "Release" AND NOT CMAKE_CROSSCOMPILING)
  add_test(NAME docs_test COMMAND ${MEM_DOXYGEN} ${CMAKE_BINARY_DIR}/Doxyfile)
endif()
