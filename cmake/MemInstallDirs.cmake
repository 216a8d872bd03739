# Where things are installed, all below the prefix; the usual CMAKE_INSTALL_… variables move them.

if(NOT CMAKE_INSTALL_DOCDIR)  # the default would have the project's name, in capitals
  set(CMAKE_INSTALL_DOCDIR share/doc/qj7mem00)
endif()
include(GNUInstallDirs)

# What is neither linked by name nor started by name has a folder of its own: the module, the
# static checking layer and reference host, and on Linux the program behind bin/memtool. A program finds the module
# beside itself; Windows, which has no symbolic links for that, has both in bin.
set(MEM_INSTALL_PRIVATEDIR ${CMAKE_INSTALL_LIBDIR}/qj7mem00)
if(WIN32)
  set(MEM_INSTALL_MODULEDIR ${CMAKE_INSTALL_BINDIR})
else()
  set(MEM_INSTALL_MODULEDIR ${MEM_INSTALL_PRIVATEDIR})
endif()
set(MEM_INSTALL_HOST_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/qj7mem00/host)
set(MEM_INSTALL_SHAREDIR ${CMAKE_INSTALL_DATADIR}/qj7mem00)
set(MEM_INSTALL_PACKAGEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/QJ7MEM00)
set(MEM_INSTALL_PKGCONFIGDIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# What is installed comes in parts, each a package for Debian, whose name it has:
#
#   qj7mem00        the library, the C headers of the contract, and the contract as JSON
#   qj7mem00-dev    the checking layer with its header, the C++ header, the reference host, and all
#                   else that programs are compiled and linked with; what names no part is here
#   qj7mem00-tools  memtool
#   qj7mem00-doc    the manual and the examples
#   qj7mem00-dbg    debug information
set(MEM_PARTS qj7mem00 qj7mem00-dev qj7mem00-tools qj7mem00-doc qj7mem00-dbg)
set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME qj7mem00-dev)
