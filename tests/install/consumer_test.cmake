# A project outside this tree finds, builds with and runs what `cmake --install` installs, first with
# find_package, then with pkg-config. The prefix is moved first: nothing may hold its old place. Then
# it takes this tree in, with add_subdirectory and with FetchContent.
#
#   cmake -DBUILD=… -DCONFIG=… -DSOURCE=… -DWORK=… -DVERSION=… -DGENERATOR=… [-DTOOLCHAIN=…]
#         [-DC_COMPILER=… -DCXX_COMPILER=…] [-DFLAGS=…] [-DLINK_FLAGS=…] [-DLIBDIR=…]
#         [-DSUFFIX=…] [-DEMULATOR=…] -P consumer_test.cmake
#
# BUILD, CONFIG  the build tree whose targets are installed, and its build type
# SOURCE         the tree that it was built from
# WORK           folder of this test's own
# FLAGS          of the compilers, where the reference host needs them to be the same
# SUFFIX         of programs
# LIBDIR         where libraries are installed under the prefix
cmake_minimum_required(VERSION 3.25)

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE code OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT code STREQUAL "0")
    list(JOIN ARGN " " command)
    message(FATAL_ERROR "${command}\nended with ${code}:\n${out}${err}")
  endif()
  set(out "${out}" PARENT_SCOPE)
endfunction()

# must_print(<text> <program> [<argument>...])
function(must_print text)
  run(${EMULATOR} ${ARGN})
  string(REPLACE "\r\n" "\n" out "${out}")
  if(NOT out STREQUAL "${text}\n")
    message(FATAL_ERROR "${ARGN} printed \"${out}\" instead of \"${text}\"")
  endif()
endfunction()

function(must_not_hold folder)
  file(GLOB_RECURSE texts ${folder}/*.cmake ${folder}/*.pc)
  if(NOT texts)
    message(FATAL_ERROR "${folder} has no package files")
  endif()
  foreach(text IN LISTS texts)
    file(READ ${text} content)
    foreach(place IN LISTS ARGN)
      string(FIND "${content}" "${place}" at)
      if(NOT at EQUAL -1)
        message(FATAL_ERROR "${text} holds the path ${place}")
      endif()
    endforeach()
  endforeach()
endfunction()

# configure(<how>): makes the build folder WORK/<how>.
function(configure how)
  run(${CMAKE_COMMAND} -E env "CFLAGS=${FLAGS}" "CXXFLAGS=${FLAGS}" "LDFLAGS=${FLAGS} ${LINK_FLAGS}"
    ${CMAKE_COMMAND} -S ${CMAKE_CURRENT_LIST_DIR}/consumer -B ${WORK}/${how} -G ${GENERATOR} ${compilers}
    -DCMAKE_BUILD_TYPE=${CONFIG} -DHOW=${how} -DWANTED_VERSION=${VERSION} -DTREE=${SOURCE} ${search})
endfunction()

# build_and_run(<how> <folder>): the module must be said to be under the folder.
function(build_and_run how folder)
  set(build ${WORK}/${how})
  configure(${how})
  run(${CMAKE_COMMAND} --build ${build})
  file(READ ${build}/module-path.txt module)
  string(FIND "${module}" "${folder}/" at)
  if(NOT at EQUAL 0)
    message(FATAL_ERROR "The module is said to be ${module}, which is not under ${folder}")
  endif()
  cmake_path(GET module PARENT_PATH module_folder)
  set(ENV{WINEPATH} Z:${module_folder})  # where Windows looks for libraries
  must_print("the module is there" ${build}/consumer_probe${SUFFIX} ${module})
  must_print("the component works" ${build}/consumer_program${SUFFIX} ${module})
  must_print("the component works" ${build}/consumer_program${SUFFIX})
  must_print("the layer wants a bound vector" ${build}/consumer_check${SUFFIX} ${module})
endfunction()

file(REMOVE_RECURSE ${WORK})
set(prefix ${WORK}/installed)
set(moved ${WORK}/moved)
run(${CMAKE_COMMAND} --install ${BUILD} --config ${CONFIG} --prefix ${prefix})
file(RENAME ${prefix} ${moved})
must_not_hold(${moved} ${SOURCE} ${BUILD} ${prefix})

if(TOOLCHAIN)
  set(compilers -DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN})
  set(search -DCMAKE_FIND_ROOT_PATH=${moved})
else()
  set(compilers -DCMAKE_C_COMPILER=${C_COMPILER} -DCMAKE_CXX_COMPILER=${CXX_COMPILER})
  set(search -DCMAKE_PREFIX_PATH=${moved})
endif()
build_and_run(CMake ${moved})

set(search "")
set(ENV{PKG_CONFIG_LIBDIR} ${moved}/${LIBDIR}/pkgconfig)
build_and_run(pkg-config ${moved})

# The tree as a part of the project; nothing of it is installed, and no target of its own gets in the
# way. Once is enough: sanitizers have nothing to find here.
if(FLAGS)
  return()
endif()
find_program(CCACHE ccache)
if(CCACHE)
  list(APPEND compilers -DCMAKE_C_COMPILER_LAUNCHER=${CCACHE} -DCMAKE_CXX_COMPILER_LAUNCHER=${CCACHE})
endif()
build_and_run(subproject ${WORK}/subproject)
configure(FetchContent)
file(READ ${WORK}/FetchContent/module-path.txt module)
if(NOT module MATCHES "^${WORK}/FetchContent/.*QJ7MEM00")
  message(FATAL_ERROR "The module is said to be ${module}")
endif()
