# Header-only libraries of the system, which the library itself does not use: the host and the checking
# layer write JSON with one of them; tools, examples and tests use all. Symbolic links in the build
# folder lead to their folders, because a cross build must not use the rest of /usr/include.
set(MEM_TOOL_HEADERS /usr/include CACHE PATH "Folder with CLI, fmt, nlohmann and utf8cpp")
set(tool_headers ${PROJECT_BINARY_DIR}/tools/headers)
file(MAKE_DIRECTORY ${tool_headers})
set(pairs nlohmann:nlohmann-json3-dev)
if(MEM_PROGRAMS)
  list(APPEND pairs CLI:libcli11-dev fmt:libfmt-dev utf8cpp:libutfcpp-dev)
endif()
foreach(pair IN LISTS pairs)
  string(REPLACE ":" ";" pair ${pair})
  list(GET pair 0 folder)
  list(GET pair 1 package)
  if(NOT IS_DIRECTORY ${MEM_TOOL_HEADERS}/${folder})
    message(FATAL_ERROR "No headers in ${MEM_TOOL_HEADERS}/${folder}: install the Debian package "
      "${package}, or set MEM_TOOL_HEADERS to the folder that contains ${folder}")
  endif()
  file(CREATE_LINK ${MEM_TOOL_HEADERS}/${folder} ${tool_headers}/${folder} SYMBOLIC)
endforeach()

add_library(tool_headers INTERFACE)
target_include_directories(tool_headers SYSTEM INTERFACE ${tool_headers})
