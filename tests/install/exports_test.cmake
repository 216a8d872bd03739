# The library exports exactly one name and needs only libraries that every system has. What is
# shipped is hardened.
#
#   cmake -DMODULE=… -DTOOL=… -DOBJDUMP=… [-DNM=…] [-DSANITIZE=…] [-DCONFIG=…] -P exports_test.cmake
#
# MODULE    QJ7MEM00.so or QJ7MEM00.dll
# TOOL      memtool, which is shipped, too
# OBJDUMP   lists the headers of such files
# NM        lists the dynamic symbols of a .so
# SANITIZE  not empty: the module also needs the sanitizers' libraries
# CONFIG    what the module was built as: Release is what is shipped
cmake_minimum_required(VERSION 3.25)

set(expected ENV_FWV_V00M00_GFunc)

# Runs a command and makes a list of the lines that it prints. Brackets become angle brackets,
# because lists of CMake cannot hold one without the other.
function(list_lines result)
  execute_process(COMMAND ${CMAKE_COMMAND} -E env LC_ALL=C ${ARGN}
    OUTPUT_VARIABLE lines COMMAND_ERROR_IS_FATAL ANY)
  string(REPLACE "[" "<" lines "${lines}")
  string(REPLACE "]" ">" lines "${lines}")
  string(REPLACE ";" "," lines "${lines}")
  string(REPLACE "\n" ";" lines "${lines}")
  set(${result} "${lines}" PARENT_SCOPE)
endfunction()

# Collects what the first group of `pattern` matches in each line.
function(collect result pattern lines)
  set(found "")
  foreach(line IN LISTS lines)
    if(line MATCHES "${pattern}")
      list(APPEND found "${CMAKE_MATCH_1}")
    endif()
  endforeach()
  set(${result} "${found}" PARENT_SCOPE)
endfunction()

list_lines(headers ${OBJDUMP} -p ${MODULE})
if(MODULE MATCHES "\\.dll$")
  collect(exported "^\t< *([0-9]+)> \\+base<.* Export RVA$" "${headers}")  # nameless ones too
  collect(names "^\t< *[0-9]+> ([^ +][^ ]*)$" "${headers}")
  collect(needed "^\tDLL Name: (.+)$" "${headers}")
  set(allowed KERNEL32.dll msvcrt.dll)
else()
  list_lines(symbols ${NM} -D --defined-only --format=posix ${MODULE})
  collect(exported "^([^ ]+) " "${symbols}")
  set(names ${exported})
  collect(needed "^ +NEEDED +(.+)$" "${headers}")
  set(allowed libc.so.6 libm.so.6 ld-linux-x86-64.so.2)
  if(SANITIZE)
    list(FILTER needed EXCLUDE REGEX "^lib([atu]b?san|gcc_s|stdc\\+\\+)\\.so")
  endif()
endif()

list(LENGTH exported count)
if(NOT names STREQUAL expected OR NOT count EQUAL 1)
  message(FATAL_ERROR "${MODULE} exports ${count} entries, named \"${names}\"; "
    "expected only \"${expected}\"")
endif()
if(NOT needed)
  message(FATAL_ERROR "${MODULE}: found no list of the libraries that it needs")
endif()
set(foreign ${needed})
list(REMOVE_ITEM foreign ${allowed})
if(foreign)
  message(FATAL_ERROR "${MODULE} needs \"${foreign}\"; expected nothing but \"${allowed}\"")
endif()
message(STATUS "${MODULE} exports ${names} and needs ${needed}")

# A fault handler may run on any thread, so thread-local storage must be there without an allocation.
# (Coverage counters have some of their own.)
if(NOT MODULE MATCHES "\\.dll$")
  list_lines(symbols ${NM} -D --undefined-only --format=posix ${MODULE})
  collect(lookups "^(__tls_get_addr)" "${symbols}")
  list_lines(symbols ${NM} --format=posix ${MODULE})
  collect(counters "^(__gcov_[^ ]+) " "${symbols}")
  if(lookups AND NOT counters)
    message(FATAL_ERROR "${MODULE} has thread-local storage that is allocated at its first use")
  endif()
endif()

# Nothing runs when the module that is shipped is loaded, and no storage is allocated then.
# (Sanitizers and coverage counters do both, and without optimisation more of the C++ runtime stays.)
if(NOT MODULE MATCHES "\\.dll$" AND CONFIG STREQUAL "Release")
  list_lines(symbols ${NM} --defined-only --format=posix ${MODULE})
  collect(initialisers "^(_GLOBAL__sub_I_[^ ]+) " "${symbols}")
  if(initialisers)
    message(FATAL_ERROR "${MODULE} has initialisers that run when it is loaded: ${initialisers}")
  endif()
endif()

# Files as they are shipped: hardened, without debug information, which is in a file next to them.
# `function` is one of the file, by which code for x86 shows that its functions have landing pads.
function(require_hardened file function)
  list_lines(headers ${OBJDUMP} -p ${file})
  list_lines(sections ${OBJDUMP} -h ${file})
  set(missing "")
  if(MODULE MATCHES "\\.dll$")
    foreach(flag DYNAMIC_BASE NX_COMPAT HIGH_ENTROPY_VA)
      if(NOT headers MATCHES "\t${flag};")
        list(APPEND missing ${flag})
      endif()
    endforeach()
  else()
    list_lines(undefined ${NM} -D --undefined-only --format=posix ${file})
    if(NOT headers MATCHES "; +RELRO off ")
      list(APPEND missing "a part that is read-only after loading (-z relro)")
    endif()
    if(NOT headers MATCHES "; +BIND_NOW |; +FLAGS +0x[0-9a-f]*[89a-f];")
      list(APPEND missing "symbols resolved at loading (-z now)")
    endif()
    if(NOT headers MATCHES "; +STACK off [^;]*; +filesz [^;]* flags rw-;")
      list(APPEND missing "a stack that cannot be run (-z noexecstack)")
    endif()
    if(NOT undefined MATCHES "__stack_chk_fail")
      list(APPEND missing "protected stacks (-fstack-protector-strong)")
    endif()
    if(OBJDUMP MATCHES "llvm")
      set(disassemble --disassemble-symbols=${function})
    else()
      set(disassemble --disassemble=${function})
    endif()
    list_lines(code ${OBJDUMP} -d ${disassemble} --no-show-raw-insn ${file})
    if(headers MATCHES "file format elf64-x86-64" AND NOT code MATCHES "<${function}>:;[ 0-9a-f]+:[ \t]+endbr64")
      list(APPEND missing "landing pads (-fcf-protection)")
    endif()
  endif()
  if(sections MATCHES " \\.debug_")
    list(APPEND missing "debug information in a file of its own")
  endif()
  if(NOT sections MATCHES " \\.gnu_debuglink " OR NOT EXISTS ${file}.debug)
    list(APPEND missing "its file of debug information")
  endif()
  if(missing)
    list(JOIN missing ", " missing)
    message(FATAL_ERROR "${file} lacks: ${missing}")
  endif()
  message(STATUS "${file} is hardened")
endfunction()

if(CONFIG STREQUAL "Release" AND NOT SANITIZE)
  require_hardened(${MODULE} ${expected})
  require_hardened(${TOOL} main)
endif()
