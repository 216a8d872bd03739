# Cross build for 64-bit Windows: clang as the compiler, because it knows __try/__except; headers,
# C and C++ runtime of mingw-w64 with POSIX threads; lld as the linker, because GNU ld refuses
# clang's and GCC's differing section sizes and has no link-time optimisation for clang's objects.
#
# Debian packages: clang llvm lld g++-mingw-w64-x86-64-posix wine wine64

set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

function(mem_require_program variable name package)
  find_program(${variable} ${name})
  if(NOT ${variable})
    message(FATAL_ERROR "The Windows build needs ${name} (Debian package ${package})")
  endif()
endfunction()

mem_require_program(MEM_CLANG clang clang)
mem_require_program(MEM_CLANGXX clang++ clang)
mem_require_program(MEM_LLD ld.lld lld)
mem_require_program(MEM_LLVM_AR llvm-ar llvm)
mem_require_program(MEM_MINGW_GXX x86_64-w64-mingw32-g++-posix g++-mingw-w64-x86-64-posix)
mem_require_program(MEM_MINGW_GCC x86_64-w64-mingw32-gcc-posix gcc-mingw-w64-x86-64-posix)
mem_require_program(MEM_WINDRES x86_64-w64-mingw32-windres binutils-mingw-w64-x86-64)
mem_require_program(MEM_OBJDUMP x86_64-w64-mingw32-objdump binutils-mingw-w64-x86-64)

set(MEM_WINDOWS_ROOT /usr/x86_64-w64-mingw32)
execute_process(COMMAND ${MEM_MINGW_GXX} -print-libgcc-file-name
  OUTPUT_VARIABLE MEM_LIBGCC OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
cmake_path(GET MEM_LIBGCC PARENT_PATH MEM_GCC_DIR)

set(CMAKE_C_COMPILER ${MEM_CLANG})
set(CMAKE_CXX_COMPILER ${MEM_CLANGXX})
set(CMAKE_C_COMPILER_TARGET x86_64-w64-windows-gnu)
set(CMAKE_CXX_COMPILER_TARGET x86_64-w64-windows-gnu)
set(CMAKE_RC_COMPILER ${MEM_WINDRES})
set(CMAKE_OBJDUMP ${MEM_OBJDUMP})
set(CMAKE_SYSROOT ${MEM_WINDOWS_ROOT})

# The C++ runtime is built with emulated thread-local storage, so its users must be as well.
set(CMAKE_C_FLAGS_INIT "-fms-extensions -femulated-tls")
# Its comparison of types is not inline. g++ for this platform defines this by itself.
set(CMAKE_CXX_FLAGS_INIT "${CMAKE_C_FLAGS_INIT} -D__GXX_TYPEINFO_EQUALITY_INLINE=0")
set(CMAKE_CXX_STANDARD_INCLUDE_DIRECTORIES
  ${MEM_GCC_DIR}/include/c++ ${MEM_GCC_DIR}/include/c++/x86_64-w64-mingw32)
foreach(kind EXE SHARED MODULE)
  set(CMAKE_${kind}_LINKER_FLAGS_INIT "-fuse-ld=lld -L${MEM_GCC_DIR}")
endforeach()
set(CMAKE_CXX_STANDARD_LIBRARIES "-lpthread")

list(APPEND CMAKE_FIND_ROOT_PATH ${MEM_WINDOWS_ROOT})  # after the user's folders
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/wine-run.sh)
