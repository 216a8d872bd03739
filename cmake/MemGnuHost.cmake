# Builds the checking layer and the reference host for mingw-w64 a second time, with g++: GNU ld warns
# of every section that clang and g++ make in different sizes, and clang's archives have dozens. lld
# accepts the archives of g++, too.
find_program(MEM_MINGW_AR x86_64-w64-mingw32-ar REQUIRED)
set(MEM_GNU_ARCHIVES "")

# mem_gnu_archive(<target> <folder of its sources>)
# Adds the archive to MEM_GNU_ARCHIVES.
function(mem_gnu_archive target folder)
  set(objects_folder ${PROJECT_BINARY_DIR}/gnu/${folder})
  file(MAKE_DIRECTORY ${objects_folder})
  get_target_property(sources ${target} SOURCES)
  list(FILTER sources EXCLUDE REGEX "WIN32|_posix\\.cpp")  # the same choice as in the folder's CMakeLists.txt
  list(APPEND sources ${target}_windows.cpp)
  list(REMOVE_DUPLICATES sources)
  set(objects "")
  foreach(source IN LISTS sources)
    set(object ${objects_folder}/${source}.obj)
    set(options "")
    if(source STREQUAL "memchk_zones.cpp")  # as in check/CMakeLists.txt
      set(options -fno-builtin -fno-tree-loop-distribute-patterns)
    endif()
    add_custom_command(OUTPUT ${object}
      COMMAND ${MEM_MINGW_GXX} -std=c++20 -O2 -DNDEBUG -Wall -Wextra $<$<BOOL:${MEM_WERROR}>:-Werror>
        ${options} -I${PROJECT_SOURCE_DIR}/include -isystem ${tool_headers} -MD -MF ${object}.d
        -c ${PROJECT_SOURCE_DIR}/${folder}/${source} -o ${object}
      DEPENDS ${folder}/${source} DEPFILE ${object}.d
      COMMENT "g++: ${folder}/${source}" VERBATIM)
    list(APPEND objects ${object})
  endforeach()
  set(archive ${PROJECT_BINARY_DIR}/gnu/lib${target}.a)
  add_custom_command(OUTPUT ${archive}
    COMMAND ${CMAKE_COMMAND} -E rm -f ${archive}
    COMMAND ${MEM_MINGW_AR} rcD ${archive} ${objects}
    DEPENDS ${objects} COMMENT "g++: lib${target}.a" VERBATIM)
  set(MEM_GNU_ARCHIVES ${MEM_GNU_ARCHIVES} ${archive} PARENT_SCOPE)
endfunction()

mem_gnu_archive(memchk check)
mem_gnu_archive(refhost host)
add_custom_target(gnu_archives ALL DEPENDS ${MEM_GNU_ARCHIVES})
