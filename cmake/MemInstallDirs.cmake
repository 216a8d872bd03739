# Where things are installed, all below the prefix; the usual CMAKE_INSTALL_… variables move them.

if(NOT CMAKE_INSTALL_DOCDIR)  # the default would have the project's name, in capitals
  set(CMAKE_INSTALL_DOCDIR share/doc/qj7mem00)
endif()
include(GNUInstallDirs)

# What is neither linked by name nor started by name has a folder of its own: the module, the
# static reference host, and on Linux the program behind bin/memtool. A program finds the module
# beside itself; Windows, which has no symbolic links for that, has both in bin.
set(MEM_INSTALL_PRIVATEDIR ${CMAKE_INSTALL_LIBDIR}/qj7mem00)
if(WIN32)
  set(MEM_INSTALL_MODULEDIR ${CMAKE_INSTALL_BINDIR})
else()
  set(MEM_INSTALL_MODULEDIR ${MEM_INSTALL_PRIVATEDIR})
endif()
set(MEM_INSTALL_HOST_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/qj7mem00/host)
set(MEM_INSTALL_PACKAGEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/QJ7MEM00)
set(MEM_INSTALL_PKGCONFIGDIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
