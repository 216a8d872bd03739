# Folders of the installation, all below the prefix; the usual CMAKE_INSTALL_… variables change them.

if(NOT CMAKE_INSTALL_DOCDIR)  # the default would have the project's name, in capitals
  set(CMAKE_INSTALL_DOCDIR share/doc/qj7mem00)
endif()
include(GNUInstallDirs)

# Files that are neither linked nor started by their name have a folder of their own: the module, the
# static checking layer and reference host, and on Linux the program to which bin/memtool is a link. A
# program finds the module in its own folder. On Windows, without symbolic links, both are in bin.
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

# The installation has parts. Each is a package for Debian of the same name:
#
#   qj7mem00        the library, the C headers of the contract, and the contract as JSON
#   qj7mem00-dev    the checking layer with its header, the C++ header, the reference host, and
#                   everything else for compiling and linking programs; the default part
#   qj7mem00-tools  memtool
#   qj7mem00-doc    the manual and the examples
#   qj7mem00-dbg    debug information
set(MEM_PARTS qj7mem00 qj7mem00-dev qj7mem00-tools qj7mem00-doc qj7mem00-dbg)
set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME qj7mem00-dev)
