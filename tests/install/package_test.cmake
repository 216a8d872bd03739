# The packages that cpack makes of this build hold what they should and nothing else, say of
# themselves what Debian wants to know, and are enough to build and run a program. All links of the
# manual in them lead to something.
#
#   cmake -DBUILD=… -DCONFIG=… -DWORK=… -DLIBDIR=… -DMODULE=… -DTOOL=… -DVERSION=… -DOBJDUMP=…
#         -DGCC=… -DGXX=… -DGENERATOR=… [-DMAINTAINER=…]
#         [-DHAS_SITE=…] [-DEMULATOR=…] -P package_test.cmake
#
# BUILD, CONFIG  the build tree and its build type
# WORK           folder of this test's own
# LIBDIR         where libraries are under the prefix
# MODULE, TOOL   paths of the module and of memtool under the prefix
# OBJDUMP        lists the sections of such files
# MAINTAINER     whom a package for Debian names
# HAS_SITE       whether this build makes the manual as a site
# GCC, GXX       compilers that use GNU ld, for a program that uses the packages
cmake_minimum_required(VERSION 3.25)

find_program(CPACK NAMES cpack REQUIRED)
file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK})

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE code OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT code STREQUAL "0")
    list(JOIN ARGN " " command)
    message(FATAL_ERROR "${command}\nended with ${code}:\n${out}${err}")
  endif()
  set(out "${out}${err}" PARENT_SCOPE)
endfunction()

# expect_files(<package> <folder> <regular expression>...): the folder has a file for each
# expression, and each file matches one.
function(expect_files package folder)
  file(GLOB_RECURSE files LIST_DIRECTORIES false RELATIVE ${folder} ${folder}/*)
  foreach(wanted ${ARGN})
    set(found ${files})
    list(FILTER found INCLUDE REGEX "^${wanted}$")
    if(NOT found)
      message(SEND_ERROR "${package} has no file ${wanted}")
    endif()
    list(FILTER files EXCLUDE REGEX "^${wanted}$")
  endforeach()
  if(files)
    message(SEND_ERROR "${package} has files that nobody expects there: ${files}")
  endif()
endfunction()

# expect_links(<folder>): links and pictures of the pages in it lead to files.
function(expect_links folder)
  set(count 0)
  file(GLOB_RECURSE pages ${folder}/*.md)
  foreach(page IN LISTS pages)
    file(READ ${page} text)
    string(REPLACE ";" "," text "${text}")
    string(ASCII 2 close)
    string(REPLACE "[" "<" text "${text}")
    string(REPLACE "]" "${close}" text "${text}")
    string(REGEX REPLACE "\n```[^`]*\n```" "" text "${text}")  # brackets in code are no links
    cmake_path(GET page PARENT_PATH here)
    string(REGEX MATCHALL "${close}\\([^) ]+\\)" links "${text}")
    foreach(link IN LISTS links)
      string(REGEX REPLACE "^.\\(([^)#]*).*\\)$" "\\1" target "${link}")
      math(EXPR count "${count} + 1")
      if(NOT target MATCHES "^https?:" AND NOT EXISTS ${here}/${target})
        message(SEND_ERROR "${page}: ${target} does not exist")
      endif()
    endforeach()
  endforeach()
  if(count LESS 50)
    message(SEND_ERROR "found only ${count} links in the manual")
  endif()
endfunction()

# expect_debug_information(<file> <debug> <source>): it has none, and <debug> has that of our own sources.
function(expect_debug_information file debug source)
  run(${OBJDUMP} -h ${file})
  if(out MATCHES "\\.debug_info" OR NOT out MATCHES "\\.gnu_debuglink")
    message(SEND_ERROR "${file} is not separate from its debug information:\n${out}")
  endif()
  file(STRINGS ${debug} found REGEX "${source}" LIMIT_COUNT 1)
  if(NOT found)
    message(SEND_ERROR "${debug} knows nothing of ${source}")
  endif()
endfunction()

run(${CPACK} --config ${BUILD}/CPackConfig.cmake -C ${CONFIG} -B ${WORK})

set(c_headers "include/qj7mem00/(qj7mem00|membase|memcat|memerr|memhost|mempack|memport|memproc|memvect)\\.h")
set(contract ${c_headers} "include/qj7mem00/contract\\.json")
set(cpp_headers "include/qj7mem00/mem\\.hpp" "include/qj7mem00/mem/[a-z_]+\\.hpp")
set(development ${cpp_headers} "include/qj7mem00/memchk\\.h" ${LIBDIR}/qj7mem00/libmemchk\\.a
  "include/qj7mem00/host/refhost\\.hpp" ${LIBDIR}/qj7mem00/librefhost\\.a
  "${LIBDIR}/cmake/QJ7MEM00/QJ7MEM00(Config|ConfigVersion|Targets|Targets-[a-z]+)\\.cmake"
  "${LIBDIR}/pkgconfig/qj7mem00(|-check|-refhost)\\.pc")
set(manual "share/doc/qj7mem00/(README|CHANGELOG)\\.md" "share/doc/qj7mem00/docs/[a-z-]+\\.md"
  "share/doc/qj7mem00/docs/pictures/[a-z-]+\\.svg" "share/doc/qj7mem00/examples/.+\\.(c|h|cpp|hpp)"
  "share/doc/qj7mem00/examples/catalog/sample-status")
string(REGEX REPLACE "[.]" "\\\\." module "${MODULE}")
string(REGEX REPLACE "[.]" "\\\\." tool "${TOOL}")

file(GLOB packages ${WORK}/qj7mem00*)
if(MODULE MATCHES "\\.so$")
  find_program(DPKG_DEB dpkg-deb REQUIRED)
  find_program(LINTIAN lintian REQUIRED)
  string(REGEX REPLACE "/[^/]+$" "/memtool" private_tool "${module}")
  set(about_qj7mem00 "Section: libs" "Depends: [^\n]*libc6 ")
  set(files_qj7mem00 ${module} ${contract})
  set(about_qj7mem00-dev "Section: libdevel" "Depends: [^\n]*qj7mem00 \\(= ${VERSION}-1\\)")
  set(files_qj7mem00-dev ${development} "share/qj7mem00/valgrind\\.supp")
  set(about_qj7mem00-tools "Section: devel" "Depends: [^\n]*qj7mem00 \\(= ${VERSION}-1\\)")
  set(files_qj7mem00-tools ${tool} ${private_tool} "share/man/man1/memtool\\.1\\.gz"
    "share/bash-completion/completions/memtool")
  set(about_qj7mem00-doc "Section: doc" "Architecture: all")
  set(files_qj7mem00-doc ${manual})
  if(HAS_SITE)
    list(APPEND files_qj7mem00-doc "share/doc/qj7mem00/html/index\\.html"
      "share/doc/qj7mem00/html/heaps\\.html" "share/doc/qj7mem00/html/memvect_8h\\.html"
      "share/doc/qj7mem00/html/[A-Za-z0-9_-]+\\.(html|js|css|svg|png)"
      "share/doc/qj7mem00/html/search/[a-z0-9_]+\\.(html|js|css|svg|png)")
  endif()
  set(about_qj7mem00-dbg "Section: debug")
  set(files_qj7mem00-dbg "lib/debug/usr/${module}\\.debug" "lib/debug/usr/${private_tool}\\.debug")
  set(parts qj7mem00 qj7mem00-dev qj7mem00-tools qj7mem00-doc qj7mem00-dbg)
  list(LENGTH packages count)
  if(NOT count EQUAL 5)
    message(FATAL_ERROR "Expected the packages ${parts}, found ${packages}")
  endif()
  set(top ${WORK}/all/usr)
  foreach(part IN LISTS parts)
    file(GLOB package ${WORK}/${part}_${VERSION}-1_*.deb)
    run(${DPKG_DEB} --extract ${package} ${WORK}/${part})
    run(${DPKG_DEB} --extract ${package} ${WORK}/all)
    expect_files(${part} ${WORK}/${part}/usr ${files_${part}} "share/doc/${part}/copyright"
      "share/doc/${part}/changelog\\.Debian\\.gz" "share/doc/${part}/changelog\\.gz"
      "share/lintian/overrides/${part}")
    run(${DPKG_DEB} --field ${package})
    foreach(text "Package: ${part}\n" "Version: ${VERSION}-1\n" "Maintainer: ${MAINTAINER}\n"
        "Description: memory services for" ${about_${part}})
      if(NOT out MATCHES "${text}")
        message(SEND_ERROR "${package} does not say \"${text}\":\n${out}")
      endif()
    endforeach()
    file(READ ${top}/share/doc/${part}/copyright copyright)
    if(NOT copyright MATCHES "All rights reserved; no licence has been chosen by the owners yet")
      message(SEND_ERROR "${package}: the copyright file says\n${copyright}")
    endif()
  endforeach()
  run(${LINTIAN} --fail-on error,warning --display-level ">=warning" --allow-root ${packages})
  if(NOT out STREQUAL "")
    message(SEND_ERROR "lintian:\n${out}")
  endif()
  string(REGEX REPLACE "/[^/]+$" "/memtool" debugged_tool "${MODULE}")
  set(debug_top ${top}/lib/debug/usr)
  set(hows CMake)
  set(cross "")
else()
  list(LENGTH packages count)
  if(NOT count EQUAL 1)
    message(FATAL_ERROR "Expected one package, found ${packages}")
  endif()
  file(ARCHIVE_EXTRACT INPUT ${packages} DESTINATION ${WORK}/all)
  cmake_path(GET packages STEM LAST_ONLY folder)
  set(top ${WORK}/all/${folder})
  expect_files(${packages} ${top} ${module} "${module}\\.debug" ${tool} "${tool}\\.debug" ${contract}
    ${development} ${manual} "share/man/man1/memtool\\.1" "${LIBDIR}/QJ7MEM00\\.def"
    "share/qj7mem00/host/refhost.*\\.[ch]pp" "share/qj7mem00/check/memchk.*\\.[ch]pp"
    "share/qj7mem00/host/CMakeLists\\.txt")
  set(debugged_tool ${TOOL})
  set(debug_top ${top})

  # What the properties of the files show: UTF-16, of which every second byte is read here.
  foreach(file ${MODULE} ${TOOL})
    file(READ ${top}/${file} bytes HEX)
    string(HEX "${VERSION}" version)
    string(REGEX REPLACE "(..)" "\\100" version "${version}")
    foreach(name FileVersion ProductVersion OriginalFilename)
      string(HEX "${name}" key)
      string(REGEX REPLACE "(..)" "\\100" key "${key}")
      string(FIND "${bytes}" "${key}" place)
      if(place EQUAL -1)
        message(SEND_ERROR "${file} has no ${name}")
      elseif(name MATCHES "Version$")
        string(SUBSTRING "${bytes}" ${place} 100 entry)
        string(FIND "${entry}" "${version}" place)
        if(place EQUAL -1)
          message(SEND_ERROR "The ${name} of ${file} is not ${VERSION}")
        endif()
      endif()
    endforeach()
  endforeach()

  set(hows CMake sources)
  set(cross -DCMAKE_SYSTEM_NAME=Windows -DCMAKE_EXE_LINKER_FLAGS=-static)
endif()

# A program that uses the unpacked packages, for Windows one of another compiler's, and one with the
# host's sources. GNU ld must have nothing to say.
foreach(how IN LISTS hows)
  set(build ${WORK}/${how})
  run(${CMAKE_COMMAND} -S ${CMAKE_CURRENT_LIST_DIR}/consumer -B ${build} -G ${GENERATOR} ${cross}
    -DCMAKE_C_COMPILER=${GCC} -DCMAKE_CXX_COMPILER=${GXX} -DCMAKE_BUILD_TYPE=Release -DHOW=${how}
    -DWANTED_VERSION=${VERSION} -DCMAKE_PREFIX_PATH=${top} -DHOST=${top}/share/qj7mem00/host
    -DREFHOST_JSON_HEADERS=${JSON_HEADERS})
  run(${CMAKE_COMMAND} --build ${build})
  if(out MATCHES "warning|duplicate section")
    message(SEND_ERROR "Building with the packages:\n${out}")
  endif()
  file(READ ${build}/module-path.txt path)
  file(GLOB program ${build}/consumer_program ${build}/consumer_program.exe)
  run(${EMULATOR} ${program} ${path})
  if(NOT out MATCHES "^the component works\r?\n$")
    message(SEND_ERROR "consumer_program with ${how} printed \"${out}\"")
  endif()
  file(GLOB program ${build}/consumer_check ${build}/consumer_check.exe)
  run(${EMULATOR} ${program})
  if(NOT out MATCHES "^the layer wants a bound vector\r?\n$")
    message(SEND_ERROR "consumer_check with ${how} printed \"${out}\"")
  endif()
endforeach()

expect_links(${top}/share/doc/qj7mem00)
expect_debug_information(${top}/${MODULE} ${debug_top}/${MODULE}.debug memcheap\\.cpp)
expect_debug_information(${top}/${debugged_tool} ${debug_top}/${debugged_tool}.debug packed_reader\\.cpp)

# memtool has to find the module.
run(${EMULATOR} ${top}/${TOOL} errors 4055)
if(NOT out MATCHES "MEMERR_HEAPAMEM")
  message(FATAL_ERROR "${TOOL} printed \"${out}\"")
endif()
