# What `cmake --install` puts under the prefix. Nothing installed holds an absolute path, so the
# prefix may be moved.
include(CMakePackageConfigHelpers)

# Builds what is installed and no tests.
add_custom_target(installed_files)
add_dependencies(installed_files QJ7MEM00 refhost memtool)

install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES host/refhost.hpp DESTINATION ${MEM_INSTALL_HOST_INCLUDEDIR})

set_target_properties(QJ7MEM00 PROPERTIES EXPORT_NAME module)
set_target_properties(mem_headers PROPERTIES EXPORT_NAME headers)
install(TARGETS QJ7MEM00 EXPORT QJ7MEM00Targets LIBRARY DESTINATION ${MEM_INSTALL_MODULEDIR})
install(TARGETS refhost EXPORT QJ7MEM00Targets ARCHIVE DESTINATION ${MEM_INSTALL_PRIVATEDIR})
install(TARGETS mem_headers EXPORT QJ7MEM00Targets)
if(NOT WIN32)  # refhost::Library::installed() finds the library by the program's run path
  target_link_options(refhost INTERFACE
    $<INSTALL_INTERFACE:LINKER:-rpath,$<INSTALL_PREFIX>/${MEM_INSTALL_MODULEDIR}>)
  set(MEM_PC_RUN_PATH " -Wl,-rpath,\${prefix}/${MEM_INSTALL_MODULEDIR}")
endif()
if(WIN32)
  install(FILES SrcRes/binding/QJ7MEM00.def DESTINATION ${CMAKE_INSTALL_LIBDIR})
endif()

# find_package(QJ7MEM00)
install(EXPORT QJ7MEM00Targets NAMESPACE QJ7MEM00:: DESTINATION ${MEM_INSTALL_PACKAGEDIR})
configure_package_config_file(cmake/QJ7MEM00Config.cmake.in
  ${PROJECT_BINARY_DIR}/install/QJ7MEM00Config.cmake
  INSTALL_DESTINATION ${MEM_INSTALL_PACKAGEDIR} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/install/QJ7MEM00ConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/install/QJ7MEM00Config.cmake
  ${PROJECT_BINARY_DIR}/install/QJ7MEM00ConfigVersion.cmake
  DESTINATION ${MEM_INSTALL_PACKAGEDIR})

# pkg-config. It knows the folder in which it found a file, and that leads to the prefix.
cmake_path(RELATIVE_PATH CMAKE_INSTALL_PREFIX
  BASE_DIRECTORY ${CMAKE_INSTALL_PREFIX}/${MEM_INSTALL_PKGCONFIGDIR} OUTPUT_VARIABLE MEM_PC_PREFIX)
foreach(name qj7mem00 qj7mem00-refhost)
  configure_file(cmake/${name}.pc.in ${PROJECT_BINARY_DIR}/install/${name}.pc.in @ONLY)
  file(GENERATE OUTPUT ${PROJECT_BINARY_DIR}/install/${name}.pc
    INPUT ${PROJECT_BINARY_DIR}/install/${name}.pc.in)
  install(FILES ${PROJECT_BINARY_DIR}/install/${name}.pc DESTINATION ${MEM_INSTALL_PKGCONFIGDIR})
endforeach()

install(TARGETS memtool RUNTIME DESTINATION ${MEM_INSTALL_MODULEDIR})
configure_file(tools/memtool/memtool.1 ${PROJECT_BINARY_DIR}/install/memtool.1 @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/install/memtool.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
if(NOT WIN32)
  cmake_path(RELATIVE_PATH MEM_INSTALL_MODULEDIR BASE_DIRECTORY ${CMAKE_INSTALL_BINDIR}
    OUTPUT_VARIABLE folder)
  file(CREATE_LINK ${folder}/memtool ${PROJECT_BINARY_DIR}/install/memtool SYMBOLIC)
  install(FILES ${PROJECT_BINARY_DIR}/install/memtool DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

install(FILES README.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY docs DESTINATION ${CMAKE_INSTALL_DOCDIR}
  FILES_MATCHING PATTERN *.md PATTERN *.svg PATTERN reference EXCLUDE)
