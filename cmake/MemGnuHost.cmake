# The reference host for mingw-w64 once more, compiled by g++: GNU ld warns of every section that clang
# and g++ make in different sizes, and there are dozens in clang's archive. lld takes this one, too.
set(folder ${PROJECT_BINARY_DIR}/host-gnu)
set(MEM_GNU_HOST ${folder}/librefhost.a)
find_program(MEM_MINGW_AR x86_64-w64-mingw32-ar REQUIRED)
get_target_property(sources refhost SOURCES)
list(FILTER sources EXCLUDE REGEX "WIN32|_posix\\.cpp")  # the choice that host/CMakeLists.txt makes
list(APPEND sources refhost_windows.cpp)
list(REMOVE_DUPLICATES sources)
set(objects "")
foreach(source IN LISTS sources)
  set(object ${folder}/${source}.obj)
  add_custom_command(OUTPUT ${object}
    COMMAND ${MEM_MINGW_GXX} -std=c++20 -O2 -DNDEBUG -Wall -Wextra $<$<BOOL:${MEM_WERROR}>:-Werror>
      -I${PROJECT_SOURCE_DIR}/include -MD -MF ${object}.d
      -c ${PROJECT_SOURCE_DIR}/host/${source} -o ${object}
    DEPENDS host/${source} DEPFILE ${object}.d
    COMMENT "g++: host/${source}" VERBATIM)
  list(APPEND objects ${object})
endforeach()
file(MAKE_DIRECTORY ${folder})
add_custom_command(OUTPUT ${MEM_GNU_HOST}
  COMMAND ${CMAKE_COMMAND} -E rm -f ${MEM_GNU_HOST}
  COMMAND ${MEM_MINGW_AR} rcD ${MEM_GNU_HOST} ${objects}
  DEPENDS ${objects} COMMENT "g++: librefhost.a" VERBATIM)
add_custom_target(refhost_gnu DEPENDS ${MEM_GNU_HOST})
