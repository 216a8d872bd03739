# Packages that `cpack` makes from the installed files: packages for Debian, one for each part, or one
# zip for Windows.

set(CPACK_PACKAGE_NAME qj7mem00)
set(CPACK_PACKAGE_VENDOR "${MEM_VENDOR}")
set(CPACK_PACKAGE_CONTACT "${MEM_MAINTAINER}")
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL ${MEM_PARTS})
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

# mem_describe_part(<part> <section> <summary> <text> 
#                   [DEPENDS <packages>] [RECOMMENDS <packages>] [SUGGESTS <packages>])
# The text describes the contents of the package.
function(mem_describe_part part section summary text)
  cmake_parse_arguments(PARSE_ARGV 4 arg "" "DEPENDS;SUGGESTS;RECOMMENDS" "")
  string(TOUPPER ${part} name)
  set(about "QJ7MEM00 is a dynamic library of heaps, cell pools, hash tables,
concatenation buffers, a packer of linked structures, port strings and a sink
of shared strings. A host loads and binds it; components reach it through a
table of functions.")
  set(CPACK_DEBIAN_${name}_PACKAGE_NAME ${part} PARENT_SCOPE)
  set(CPACK_DEBIAN_${name}_PACKAGE_SECTION ${section} PARENT_SCOPE)
  set(CPACK_DEBIAN_${name}_DESCRIPTION "${summary}\n${about}\n\n${text}" PARENT_SCOPE)
  foreach(relation DEPENDS RECOMMENDS SUGGESTS)
    if(arg_${relation})
      set(CPACK_DEBIAN_${name}_PACKAGE_${relation} "${arg_${relation}}" PARENT_SCOPE)
    endif()
  endforeach()
  mem_install_debian_files(${part})
endfunction()

# mem_install_debian_files(<part>)
# Installs the files that every package for Debian has: changelog, copyright, and the reasons for
# overridden warnings of lintian. Only packages have them.
function(mem_install_debian_files part)
  set(folder share/doc/${part})
  set(files ${PROJECT_BINARY_DIR}/install/debian)
  set(options COMPONENT ${part} EXCLUDE_FROM_ALL)
  install(FILES ${files}/copyright DESTINATION ${folder} ${options})
  install(FILES ${files}/changelog.Debian.gz ${files}/changelog.gz DESTINATION ${folder} ${options})
  install(FILES ${PROJECT_SOURCE_DIR}/cmake/debian/${part}.lintian-overrides
    DESTINATION share/lintian/overrides RENAME ${part} ${options})
endfunction()

if(WIN32)
  set(CPACK_GENERATOR ZIP)
  set(CPACK_ARCHIVE_COMPONENT_INSTALL OFF)
  set(CPACK_PACKAGE_FILE_NAME ${CPACK_PACKAGE_NAME}-${PROJECT_VERSION}-windows-x86_64)
else()
  set(CPACK_GENERATOR DEB)
  set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # each package has its own; CPack would put this before it
  set(CPACK_DEB_COMPONENT_INSTALL ON)
  set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
  set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
  set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
  set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${MEM_MAINTAINER}")
  set(version "${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}")

  configure_file(cmake/debian/copyright.in ${PROJECT_BINARY_DIR}/install/debian/copyright @ONLY)
  configure_file(cmake/debian/changelog.in
    ${PROJECT_BINARY_DIR}/install/debian/changelog.Debian @ONLY)
  configure_file(CHANGELOG.md ${PROJECT_BINARY_DIR}/install/debian/changelog COPYONLY)
  foreach(file changelog.Debian changelog)
    execute_process(COMMAND ${MEM_GZIP} -9nkf ${PROJECT_BINARY_DIR}/install/debian/${file}
      COMMAND_ERROR_IS_FATAL ANY)
  endforeach()

  # Debuggers also look for debug information below lib/debug, which is Debian's folder for it.
  install(FILES $<TARGET_FILE:QJ7MEM00>.debug $<TARGET_FILE:memtool>.debug
    DESTINATION lib/debug${CPACK_PACKAGING_INSTALL_PREFIX}/${MEM_INSTALL_MODULEDIR}
    COMPONENT qj7mem00-dbg EXCLUDE_FROM_ALL)

  mem_describe_part(qj7mem00 libs "memory services for the components of a host runtime"
    "This package has the library, the C headers that hosts and components\ninclude, and the contract as JSON.")
  set(CPACK_DEBIAN_QJ7MEM00_PACKAGE_SHLIBDEPS ON)
  mem_describe_part(qj7mem00-dev libdevel "memory services for a host runtime - development files"
    "This package has the C++ header, the checking layer (which finds misuse of\nheap entries and cells), the reference host (a complete host for tests and\ntools), suppressions for valgrind, and files for CMake and pkg-config."
    DEPENDS "qj7mem00 (= ${version})"
    SUGGESTS "qj7mem00-doc, qj7mem00-dbg (= ${version}), valgrind, g++ (>= 4:12) | clang (>= 1:14), cmake (>= 3.25), pkg-config")
  mem_describe_part(qj7mem00-tools devel "memory services for a host runtime - memtool"
    "This package has memtool, which looks into packed chains and port strings,\nexplains error codes and draws heaps at work."
    DEPENDS "qj7mem00 (= ${version})")
  set(CPACK_DEBIAN_QJ7MEM00-TOOLS_PACKAGE_SHLIBDEPS ON)
  mem_describe_part(qj7mem00-doc doc "memory services for a host runtime - manual and examples"
    "This package has the manual, with a reference of the headers, as a site\n(html/index.html) and as Markdown, and the sources of the examples.")
  set(CPACK_DEBIAN_QJ7MEM00-DOC_PACKAGE_ARCHITECTURE all)
  mem_describe_part(qj7mem00-dbg debug "memory services for a host runtime - debug information"
    "This package has debug information of the library and of memtool."
    DEPENDS "qj7mem00 (= ${version})" SUGGESTS "qj7mem00-tools (= ${version})")
endif()
include(CPack)
