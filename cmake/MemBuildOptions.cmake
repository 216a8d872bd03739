# What every target of this tree is built with.

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
  if(MEM_PCH)  # ccache's manual asks for this; otherwise it keeps nothing that uses such headers
    list(PREPEND CMAKE_CXX_COMPILER_LAUNCHER
      ${CMAKE_COMMAND} -E env CCACHE_SLOPPINESS=pch_defines,time_macros)
    add_compile_options($<$<COMPILE_LANG_AND_ID:CXX,GNU>:-fpch-preprocess>
      "$<$<COMPILE_LANG_AND_ID:CXX,Clang>:SHELL:-Xclang -fno-pch-timestamp>")
  endif()
endif()

# The warnings that this tree's own code keeps to; linked privately by each of its targets.
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

# A sanitizer has to see the library, the host and the tests alike, so it is no target's own affair.
if(MEM_SANITIZE)
  add_compile_options(-fsanitize=${MEM_SANITIZE} -fno-sanitize-recover=all
    -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${MEM_SANITIZE})
endif()

# Counters for coverage belong to the library; whatever links its objects needs their runtime. The
# counts of several threads add up.
if(MEM_COVERAGE)
  add_link_options(--coverage)
endif()
add_compile_definitions($<$<CONFIG:Debug>:_GLIBCXX_ASSERTIONS>)

# Windows programs carry the C++ and compiler runtime in themselves: they run on a machine that has
# nothing but the system's DLLs.
if(MINGW)
  add_link_options(-static)
endif()

# What is linked into a process of somebody else's: all that is resolved at loading is read-only
# after it, no page is both written and run, and addresses are random. Linked privately by each file
# that is shipped.
add_library(mem_hardened INTERFACE)
if(MINGW)
  target_link_options(mem_hardened INTERFACE
    -Wl,--dynamicbase,--nxcompat,--high-entropy-va)
elseif(NOT WIN32)
  target_link_options(mem_hardened INTERFACE -Wl,-z,relro,-z,now,-z,noexecstack)
endif()

# mem_split_debug(<target>)
# Moves debug information out of a file that is shipped into <file>.debug beside it. There is some
# even without -g: that of a compiler's runtime.
function(mem_split_debug target)
  if(MSVC OR NOT CMAKE_BUILD_TYPE STREQUAL "Release" OR NOT CMAKE_OBJCOPY)
    return()
  endif()
  set(file $<TARGET_FILE:${target}>)
  add_custom_command(TARGET ${target} POST_BUILD
    COMMAND ${CMAKE_OBJCOPY} --only-keep-debug ${file} ${file}.debug
    COMMAND ${CMAKE_OBJCOPY} --strip-debug --add-gnu-debuglink=${file}.debug ${file}
    COMMENT "Debug information of ${target}" VERBATIM)
endfunction()
