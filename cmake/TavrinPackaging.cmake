# Debian packages (`cpack -G DEB`, or the deb and deb-arm presets): one package per install
# component.
#   libtavrincommon<soversion>  Runtime      the versioned shared library
#   libtavrincommon-dev         Development  headers, the .so link, the CMake package, the
#                                            pkg-config file and the test kit (tavrincommon::testing)
#   tavrincommon-tools          Tools        the command-line programs (and whatever else installs
#                                            without a component)
# Packages are made from a build with BUILD_SHARED_LIBS=ON and CMAKE_INSTALL_PREFIX=/usr, so that
# the library lands in the multiarch directory. The architecture follows the target, so a
# cross-build packages for the target; dependencies are written out, since dpkg-shlibdeps cannot
# read a cross-built binary.
set(TAVRIN_PACKAGE_CONTACT "libtavrincommon maintainers" CACHE STRING
  "Maintainer field of the Debian packages")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tavrincommon)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGE_CONTACT "${TAVRIN_PACKAGE_CONTACT}")
set(CPACK_PACKAGE_DIRECTORY "${PROJECT_BINARY_DIR}/packages")
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
# Development and tools depend on the runtime package of the same version.
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)

if(CMAKE_CROSSCOMPILING)
  if(CMAKE_LIBRARY_ARCHITECTURE STREQUAL "arm-linux-gnueabihf")
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armhf)
  elseif(CMAKE_LIBRARY_ARCHITECTURE STREQUAL "aarch64-linux-gnu")
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
  else()
    message(WARNING "No Debian architecture known for ${CMAKE_LIBRARY_ARCHITECTURE}: "
      "set CPACK_DEBIAN_PACKAGE_ARCHITECTURE")
  endif()
endif()

# What the library needs of the C and C++ runtime of Debian 12's toolchain.
set(_tavrin_runtime_depends "libc6 (>= 2.34), libgcc-s1, libstdc++6 (>= 12)")

set(CPACK_COMPONENT_RUNTIME_DISPLAY_NAME "tavrincommon runtime")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
  "${PROJECT_DESCRIPTION}: the shared library\nThe scheduler, logging, sockets, the connector and announce protocols and process helpers that device applications link.")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libtavrincommon${TAVRIN_SOVERSION})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "${_tavrin_runtime_depends}")

set(CPACK_COMPONENT_DEVELOPMENT_DISPLAY_NAME "tavrincommon development files")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
  "${PROJECT_DESCRIPTION}: development files\nHeaders, the CMake package (tavrincommon::tavrincommon, tavrincommon::testing), the pkg-config file and the test kit for an application's own unit tests.")
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS Runtime)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libtavrincommon-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)

set(CPACK_COMPONENT_TOOLS_DISPLAY_NAME "tavrincommon tools")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION
  "${PROJECT_DESCRIPTION}: command-line tools\nA demo master and slave, a browser of announced masters and a pipe over a logical connection.")
set(CPACK_COMPONENT_TOOLS_DEPENDS Runtime)
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME tavrincommon-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION net)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${_tavrin_runtime_depends}")

include(CPack)
