# What `cpack` makes of the installed files: a Debian package on Linux, a zip for Windows.

set(CPACK_PACKAGE_NAME qj7mem00)
set(CPACK_PACKAGE_VENDOR "QJ7MEM00 maintainers")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "memory services for the components of a host runtime")
set(CPACK_PACKAGE_DESCRIPTION
"A dynamic library of subpool storage, heaps, cell pools, hash tables,
concatenation buffers, a packer of linked structures, port strings and a sink
of shared strings. A host loads and binds it; components reach it through a
table of functions.

This package has the library, its headers for C and C++, the reference host
(a complete host for tests and tools), CMake and pkg-config files and the
manual.")
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

if(WIN32)
  set(CPACK_GENERATOR ZIP)
  set(CPACK_PACKAGE_FILE_NAME ${CPACK_PACKAGE_NAME}-${PROJECT_VERSION}-windows-x86_64)
else()
  set(CPACK_GENERATOR DEB)
  set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
  set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
  set(CPACK_DEBIAN_PACKAGE_MAINTAINER "QJ7MEM00 maintainers <maintainers@qj7mem00.invalid>")
  set(CPACK_DEBIAN_PACKAGE_SECTION libdevel)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  # Who only runs a host needs none of these.
  set(CPACK_DEBIAN_PACKAGE_SUGGESTS "g++ (>= 4:12) | clang (>= 1:14), cmake (>= 3.25), pkg-config")
endif()
include(CPack)
