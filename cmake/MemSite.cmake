# The manual and the reference of the headers as a site, in <build folder>/site: target `docs`. Any
# warning of Doxygen is a failure. If Doxygen and the theme are installed, a release build makes the
# site by default, and installs it.

set(run_tool ${PROJECT_SOURCE_DIR}/cmake/run-tool.sh)
set(site ${PROJECT_BINARY_DIR}/site)
set(MEM_SITE ${site})
find_program(MEM_DOXYGEN doxygen)
find_path(MEM_SITE_THEME doxygen-awesome.css PATHS /usr/share/doxygen-awesome-css)
mark_as_advanced(MEM_DOXYGEN MEM_SITE_THEME)

file(GLOB site_parts CONFIGURE_DEPENDS docs/*.md docs/site/* docs/pictures/*.svg
  include/qj7mem00/*.h include/qj7mem00/*.hpp include/qj7mem00/mem/*.hpp)
list(APPEND site_parts ${PROJECT_SOURCE_DIR}/README.md ${PROJECT_SOURCE_DIR}/CHANGELOG.md
  ${PROJECT_SOURCE_DIR}/CONTRIBUTING.md ${PROJECT_SOURCE_DIR}/SrcRes/README.md
  ${PROJECT_SOURCE_DIR}/bench/TRIED.md ${PROJECT_SOURCE_DIR}/host/refhost.hpp)
set(MEM_SITE_PICTURES ${site_parts})
list(FILTER MEM_SITE_PICTURES INCLUDE REGEX "\\.svg$")
list(JOIN MEM_SITE_PICTURES "\" \\\n                   \"" MEM_SITE_PICTURES)
configure_file(docs/site/Doxyfile.in ${PROJECT_BINARY_DIR}/Doxyfile @ONLY)

set(check_theme "")
if(NOT MEM_SITE_THEME)
  set(check_theme COMMAND sh -c "echo 'The target docs needs the Debian package doxygen-awesome-css; cmake/install-packages.sh docs installs it.' >&2; exit 1")
endif()
# The folder is removed first, so that it contains no page that no longer exists.
add_custom_command(OUTPUT ${site}/index.html
  ${check_theme}
  COMMAND ${CMAKE_COMMAND} -E rm -rf ${site}
  COMMAND ${CMAKE_COMMAND} -E make_directory ${site}
  COMMAND ${run_tool} docs doxygen docs doxygen ${PROJECT_BINARY_DIR}/Doxyfile
  COMMAND python3 -B ${PROJECT_SOURCE_DIR}/docs/site/finish_site.py ${site}
  DEPENDS ${site_parts} ${PROJECT_BINARY_DIR}/Doxyfile
  COMMENT "The manual as a site" VERBATIM)
add_custom_target(docs DEPENDS ${site}/index.html)

set(MEM_HAS_SITE FALSE)
if(MEM_DOXYGEN AND MEM_SITE_THEME AND CMAKE_BUILD_TYPE STREQUAL "Release" AND NOT CMAKE_CROSSCOMPILING)
  set(MEM_HAS_SITE TRUE)
  set_target_properties(docs PROPERTIES EXCLUDE_FROM_ALL FALSE)
endif()
