# Files that `cmake --install` installs below the prefix. No installed file contains an absolute path,
# so the prefix may be moved. MemInstallDirs.cmake lists the parts.
include(CMakePackageConfigHelpers)
set(made ${PROJECT_BINARY_DIR}/install)  # generated files to install

# Builds the installed files, without the tests.
add_custom_target(installed_files)
add_dependencies(installed_files QJ7MEM00 memchk refhost memtool)

# The library, and the headers for hosts and components.
set_target_properties(QJ7MEM00 PROPERTIES EXPORT_NAME module)
set_target_properties(mem_headers PROPERTIES EXPORT_NAME headers)
install(TARGETS QJ7MEM00 EXPORT QJ7MEM00Targets
  LIBRARY DESTINATION ${MEM_INSTALL_MODULEDIR} COMPONENT qj7mem00)
install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT qj7mem00
  FILES_MATCHING PATTERN *.h PATTERN mem EXCLUDE PATTERN memchk.h EXCLUDE)
install(FILES ${MEM_CONTRACT_JSON} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/qj7mem00 COMPONENT qj7mem00)

# The C++ header, the checking layer with its header, and the reference host.
set_target_properties(memchk PROPERTIES EXPORT_NAME check)
install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  FILES_MATCHING PATTERN *.hpp PATTERN memchk.h)
install(FILES host/refhost.hpp DESTINATION ${MEM_INSTALL_HOST_INCLUDEDIR})
if(MEM_MINGW_GXX)
  # The archives of MemGnuHost.cmake have the same names and are installed instead of clang's. If both
  # were installed, the first would remain if both were built within the same second.
  set(never EXCLUDE_FROM_ALL)
endif()
install(TARGETS memchk refhost EXPORT QJ7MEM00Targets
  ARCHIVE DESTINATION ${MEM_INSTALL_PRIVATEDIR} ${never})
install(TARGETS mem_headers EXPORT QJ7MEM00Targets)
if(WIN32)
  install(FILES SrcRes/binding/QJ7MEM00.def DESTINATION ${CMAKE_INSTALL_LIBDIR})
  foreach(folder check host)  # for compilers that cannot use these archives
    file(GLOB sources CONFIGURE_DEPENDS ${folder}/*.cpp ${folder}/*.hpp)
    install(FILES ${sources} DESTINATION ${MEM_INSTALL_SHAREDIR}/${folder})
  endforeach()
  install(FILES cmake/host-sources.cmake DESTINATION ${MEM_INSTALL_SHAREDIR}/host RENAME CMakeLists.txt)
  if(MEM_MINGW_GXX)
    include(MemGnuHost)
    add_dependencies(installed_files gnu_archives)
    install(FILES ${MEM_GNU_ARCHIVES} DESTINATION ${MEM_INSTALL_PRIVATEDIR})
  endif()
else()
  install(FILES check/valgrind.supp DESTINATION ${MEM_INSTALL_SHAREDIR})
  set(MEM_PC_SUPPRESSIONS "suppressions=\${prefix}/${MEM_INSTALL_SHAREDIR}/valgrind.supp\n")
  # Hosts find the library by the program's run path, as refhost::Library::installed() does. The
  # reference host gets it with the checking layer, which it links.
  target_link_options(memchk INTERFACE
    $<INSTALL_INTERFACE:LINKER:-rpath,$<INSTALL_PREFIX>/${MEM_INSTALL_MODULEDIR}>)
  set(MEM_PC_RUN_PATH " -Wl,-rpath,\${prefix}/${MEM_INSTALL_MODULEDIR}")
endif()

# find_package(QJ7MEM00)
install(EXPORT QJ7MEM00Targets NAMESPACE QJ7MEM00:: DESTINATION ${MEM_INSTALL_PACKAGEDIR})
configure_package_config_file(cmake/QJ7MEM00Config.cmake.in ${made}/QJ7MEM00Config.cmake
  INSTALL_DESTINATION ${MEM_INSTALL_PACKAGEDIR} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${made}/QJ7MEM00ConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${made}/QJ7MEM00Config.cmake ${made}/QJ7MEM00ConfigVersion.cmake
  DESTINATION ${MEM_INSTALL_PACKAGEDIR})

# pkg-config. The prefix is given relative to the folder of the .pc file.
cmake_path(RELATIVE_PATH CMAKE_INSTALL_PREFIX
  BASE_DIRECTORY ${CMAKE_INSTALL_PREFIX}/${MEM_INSTALL_PKGCONFIGDIR} OUTPUT_VARIABLE MEM_PC_PREFIX)
foreach(name qj7mem00 qj7mem00-check qj7mem00-refhost)
  configure_file(cmake/${name}.pc.in ${made}/${name}.pc.in @ONLY)
  file(GENERATE OUTPUT ${made}/${name}.pc INPUT ${made}/${name}.pc.in)
  install(FILES ${made}/${name}.pc DESTINATION ${MEM_INSTALL_PKGCONFIGDIR})
endforeach()

# memtool. Its manual page is compressed, except for Windows.
install(TARGETS memtool RUNTIME DESTINATION ${MEM_INSTALL_MODULEDIR} COMPONENT qj7mem00-tools)
configure_file(tools/memtool/memtool.1 ${made}/memtool.1 @ONLY)
set(suffix "")
if(NOT WIN32)
  set(suffix .gz)
  find_program(MEM_GZIP gzip REQUIRED)
  execute_process(COMMAND ${MEM_GZIP} -9nkf ${made}/memtool.1 COMMAND_ERROR_IS_FATAL ANY)
endif()
install(FILES ${made}/memtool.1${suffix} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT qj7mem00-tools)
if(NOT WIN32)
  cmake_path(RELATIVE_PATH MEM_INSTALL_MODULEDIR BASE_DIRECTORY ${CMAKE_INSTALL_BINDIR}
    OUTPUT_VARIABLE folder)
  file(CREATE_LINK ${folder}/memtool ${made}/memtool SYMBOLIC)
  install(FILES ${made}/memtool DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT qj7mem00-tools)
endif()

if(TARGET memtool_completion)  # exists if memtool can run on this machine
  add_dependencies(installed_files memtool_completion)
  install(FILES ${PROJECT_BINARY_DIR}/tools/memtool/memtool.bash RENAME memtool
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT qj7mem00-tools)
endif()

# Debug information is installed in the folder of its file, where debuggers look first. Packages for
# Debian have it in another folder.
if(MEM_SPLITS_DEBUG)
  install(FILES $<TARGET_FILE:QJ7MEM00>.debug $<TARGET_FILE:memtool>.debug
    DESTINATION ${MEM_INSTALL_MODULEDIR} COMPONENT debug-beside)
endif()

# The manual as a site.
if(MEM_HAS_SITE)
  add_dependencies(installed_files docs)
  install(DIRECTORY ${MEM_SITE}/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/html COMPONENT qj7mem00-doc)
endif()

# The manual as Markdown, and the examples. Links to files that are not installed become plain text.
install(CODE "
  set(MEM_FROM \"${PROJECT_SOURCE_DIR}\")
  set(MEM_TO \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_DOCDIR}\")
  include(\"${PROJECT_SOURCE_DIR}/cmake/install-manual.cmake\")" COMPONENT qj7mem00-doc)
