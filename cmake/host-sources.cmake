# Builds the checking layer and the reference host from their sources, for compilers that cannot link
# the installed archives. Both write JSON with the headers of nlohmann JSON. In a project:
#
#   find_package(QJ7MEM00 1.0 REQUIRED)
#   add_subdirectory(<this folder> refhost)
#   target_link_libraries(program PRIVATE refhost)    # or memchk: the checking layer alone
#
# REFHOST_JSON_HEADERS  folder with nlohmann/json.hpp, if the compiler does not find it by itself
cmake_minimum_required(VERSION 3.25)
project(refhost LANGUAGES CXX)

find_path(REFHOST_JSON_HEADERS nlohmann/json.hpp REQUIRED
  DOC "Folder with nlohmann/json.hpp")
# Copied, because other headers in that folder may be for another platform.
file(COPY ${REFHOST_JSON_HEADERS}/nlohmann DESTINATION ${CMAKE_CURRENT_BINARY_DIR}/headers)

find_package(Threads REQUIRED GLOBAL)
function(refhost_add_library name folder)
  file(GLOB sources ${folder}/*.cpp)
  if(WIN32)
    list(FILTER sources EXCLUDE REGEX "_posix\\.cpp$")
  else()
    list(FILTER sources EXCLUDE REGEX "_windows\\.cpp$")
  endif()
  add_library(${name} STATIC ${sources})
  target_compile_features(${name} PUBLIC cxx_std_20)
  target_include_directories(${name} SYSTEM PRIVATE ${CMAKE_CURRENT_BINARY_DIR}/headers)
  target_link_libraries(${name} PUBLIC QJ7MEM00::headers Threads::Threads ${CMAKE_DL_LIBS})
endfunction()

set(check ${CMAKE_CURRENT_SOURCE_DIR}/../check)
refhost_add_library(memchk ${check})
if(NOT MSVC)  # a loop over red zones must not become a call of a library function
  set_source_files_properties(${check}/memchk_zones.cpp PROPERTIES COMPILE_OPTIONS
    "-fno-builtin;$<$<CXX_COMPILER_ID:GNU>:-fno-tree-loop-distribute-patterns>")
endif()
refhost_add_library(refhost ${CMAKE_CURRENT_SOURCE_DIR})
target_include_directories(refhost PUBLIC ${CMAKE_CURRENT_SOURCE_DIR})
target_link_libraries(refhost PUBLIC memchk)
