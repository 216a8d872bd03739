# Options for every target of this tree.

set(CMAKE_C_STANDARD 11)
set(CMAKE_C_STANDARD_REQUIRED ON)
set(CMAKE_C_EXTENSIONS OFF)
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

find_program(MEM_CCACHE ccache)
if(MEM_CCACHE AND PROJECT_IS_TOP_LEVEL)
  set(CMAKE_C_COMPILER_LAUNCHER ${MEM_CCACHE})
  set(CMAKE_CXX_COMPILER_LAUNCHER ${MEM_CCACHE})
  if(MEM_PCH)  # required by ccache; without it no unit with a precompiled header is cached
    list(PREPEND CMAKE_CXX_COMPILER_LAUNCHER
      ${CMAKE_COMMAND} -E env CCACHE_SLOPPINESS=pch_defines,time_macros)
    add_compile_options($<$<COMPILE_LANG_AND_ID:CXX,GNU>:-fpch-preprocess>
      "$<$<COMPILE_LANG_AND_ID:CXX,Clang>:SHELL:-Xclang -fno-pch-timestamp>")
  endif()
endif()

# The warnings for this tree's own code; linked privately by each of its targets.
add_library(mem_warnings INTERFACE)
if(MSVC)
  target_compile_options(mem_warnings INTERFACE /W4 /permissive- $<$<BOOL:${MEM_WERROR}>:/WX>)
else()
  target_compile_options(mem_warnings INTERFACE
    -Wall -Wextra -Wconversion -Wshadow $<$<BOOL:${MEM_WERROR}>:-Werror>)
endif()

# The public headers, as hosts and callers include them.
add_library(mem_headers INTERFACE)
target_include_directories(mem_headers INTERFACE
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)

# A sanitizer must cover the library, the host and the tests, so the option is not one of a target.
if(MEM_SANITIZE)
  add_compile_options(-fsanitize=${MEM_SANITIZE} -fno-sanitize-recover=all
    -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${MEM_SANITIZE})
endif()

# Only the library has counters for coverage. Everything that links its objects needs their runtime.
if(MEM_COVERAGE)
  add_link_options(--coverage)
endif()
add_compile_definitions($<$<CONFIG:Debug>:_GLIBCXX_ASSERTIONS>)

# Windows programs contain the C++ and compiler runtime: they need only the system's DLLs.
if(MINGW)
  add_link_options(-static)
endif()

# Options for files that run in other people's processes: what the loader resolves is read-only after
# loading, no page is both writable and executable, addresses are random, and indirect calls end at
# landing pads. Linked privately by each shipped file and by the library of memtool's parts.
add_library(mem_hardened INTERFACE)
if(MINGW)
  target_link_options(mem_hardened INTERFACE
    -Wl,--dynamicbase,--nxcompat,--high-entropy-va)
elseif(NOT WIN32)
  target_link_options(mem_hardened INTERFACE -Wl,-z,relro,-z,now,-z,noexecstack)
  if(CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|AMD64")
    target_compile_options(mem_hardened INTERFACE -fcf-protection)
  endif()
endif()

# mem_split_debug(<target> [<library>...])
# Moves the debug information of a shipped file, and of the static libraries in it, to <file>.debug in
# the same folder. The generated code does not change.
set(MEM_SPLITS_DEBUG OFF)
if(NOT MSVC AND CMAKE_BUILD_TYPE STREQUAL "Release" AND CMAKE_OBJCOPY)
  set(MEM_SPLITS_DEBUG ON)
endif()
function(mem_split_debug target)
  if(NOT MEM_SPLITS_DEBUG)
    return()
  endif()
  foreach(part ${target} ${ARGN})
    target_compile_options(${part} PRIVATE -g)
  endforeach()
  target_link_options(${target} PRIVATE -g)
  set(file $<TARGET_FILE:${target}>)
  add_custom_command(TARGET ${target} POST_BUILD
    COMMAND ${CMAKE_OBJCOPY} --only-keep-debug ${file} ${file}.debug
    COMMAND ${CMAKE_OBJCOPY} --strip-debug --add-gnu-debuglink=${file}.debug ${file}
    COMMENT "Debug information of ${target}" VERBATIM)
endfunction()

# mem_version_resource(<target> <what it is>)
# Sets the properties of a file that Windows shows.
if(WIN32)
  enable_language(RC)
endif()
function(mem_version_resource target description)
  if(NOT WIN32)
    return()
  endif()
  get_target_property(type ${target} TYPE)
  if(type STREQUAL "EXECUTABLE")
    set(file_type VFT_APP)
    set(file_name ${target}.exe)
  else()
    set(file_type VFT_DLL)
    set(file_name ${target}.dll)
  endif()
  set(resource ${CMAKE_CURRENT_BINARY_DIR}/${target}_version.rc)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/version.rc.in ${resource} @ONLY)
  target_sources(${target} PRIVATE ${resource})
endfunction()
