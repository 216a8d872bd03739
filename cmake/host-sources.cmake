# Builds the reference host from its sources, for compilers whose programs cannot be linked with the
# installed archive. From a project:
#
#   find_package(QJ7MEM00 1.0 REQUIRED)
#   add_subdirectory(<this folder> refhost)
#   target_link_libraries(program PRIVATE refhost)
cmake_minimum_required(VERSION 3.25)
project(refhost LANGUAGES CXX)

file(GLOB sources *.cpp)
if(WIN32)
  list(FILTER sources EXCLUDE REGEX "_posix\\.cpp$")
else()
  list(FILTER sources EXCLUDE REGEX "_windows\\.cpp$")
endif()
add_library(refhost STATIC ${sources})
find_package(Threads REQUIRED GLOBAL)
target_compile_features(refhost PUBLIC cxx_std_20)
target_include_directories(refhost PUBLIC ${CMAKE_CURRENT_SOURCE_DIR})
target_link_libraries(refhost PUBLIC QJ7MEM00::headers Threads::Threads ${CMAKE_DL_LIBS})
