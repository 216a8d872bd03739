# The package that cpack makes of this build holds what it should, and a package for Debian says what
# it needs.
#
#   cmake -DBUILD=… -DCONFIG=… -DWORK=… -DLIBDIR=… -DMODULE=…
#         -DTOOL=… [-DEMULATOR=…] -P package_test.cmake
#
# BUILD, CONFIG  the build tree and its build type
# WORK           folder of this test's own
# LIBDIR         where libraries lie under the prefix
# MODULE         path of the module under the prefix
# TOOL           path of memtool under the prefix
cmake_minimum_required(VERSION 3.25)

find_program(CPACK NAMES cpack REQUIRED)
file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK})
execute_process(COMMAND ${CPACK} --config ${BUILD}/CPackConfig.cmake -C ${CONFIG} -B ${WORK}
  OUTPUT_VARIABLE out ERROR_VARIABLE out COMMAND_ERROR_IS_FATAL ANY)

file(GLOB package ${WORK}/qj7mem00*)
list(LENGTH package count)
if(NOT count EQUAL 1)
  message(FATAL_ERROR "Expected one package, found \"${package}\"")
endif()
set(content ${WORK}/content)
if(package MATCHES "\\.deb$")
  find_program(DPKG_DEB dpkg-deb REQUIRED)
  execute_process(COMMAND ${DPKG_DEB} --extract ${package} ${content} COMMAND_ERROR_IS_FATAL ANY)
  execute_process(COMMAND ${DPKG_DEB} --field ${package} Package Depends Description
    OUTPUT_VARIABLE fields COMMAND_ERROR_IS_FATAL ANY)
  if(NOT fields MATCHES "Package: qj7mem00\n.*Depends: .*libc6 .*Description: memory services")
    message(FATAL_ERROR "${package} says of itself:\n${fields}")
  endif()
  set(top ${content}/usr)
else()
  file(ARCHIVE_EXTRACT INPUT ${package} DESTINATION ${content})
  cmake_path(GET package STEM LAST_ONLY folder)
  set(top ${content}/${folder})
endif()

foreach(file include/qj7mem00/qj7mem00.h include/qj7mem00/contract.json
    include/qj7mem00/memchk.h
    include/qj7mem00/host/refhost.hpp ${MODULE}
    ${LIBDIR}/qj7mem00/librefhost.a ${LIBDIR}/qj7mem00/libmemchk.a
    ${LIBDIR}/cmake/QJ7MEM00/QJ7MEM00Config.cmake
    ${LIBDIR}/pkgconfig/qj7mem00.pc share/doc/qj7mem00/README.md)
  if(NOT EXISTS ${top}/${file})
    message(FATAL_ERROR "${package} has no ${file}")
  endif()
endforeach()

# Tests, examples and the parts that programs are made of stay at home.
file(GLOB_RECURSE libraries RELATIVE ${top} ${top}/*.a ${top}/*.so ${top}/*.dll)
list(SORT libraries)
set(expected ${MODULE} ${LIBDIR}/qj7mem00/libmemchk.a ${LIBDIR}/qj7mem00/librefhost.a)
list(SORT expected)
if(NOT libraries STREQUAL expected)
  message(FATAL_ERROR "${package} has the libraries ${libraries}; expected ${expected}")
endif()

# memtool has to find the module.
execute_process(COMMAND ${EMULATOR} ${top}/${TOOL} errors 4055 OUTPUT_VARIABLE out
  COMMAND_ERROR_IS_FATAL ANY)
if(NOT out MATCHES "MEMERR_HEAPAMEM")
  message(FATAL_ERROR "${TOOL} printed \"${out}\"")
endif()
