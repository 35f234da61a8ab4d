# The Debian package (CPack's DEB generator): the shared and static library, the headers,
# the CMake package and the .pc files, the qlt tool and the Python package quelt, in one
# package "queltlibrary" installed under /usr. Built by scripts/package-deb (docs/packaging.md).
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME queltlibrary)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "Bluetooth LE UART-service devices: library, qlt tool and Python module")
set(CPACK_PACKAGE_DESCRIPTION
    "Scanning, connection and a reliable sliding-window stream to devices offering the Nordic\n\
UART Service, over BlueZ or a simulated radio. Contains libQueltLibrary (shared and static),\n\
its headers, CMake package and pkg-config files, the qlt command-line tool and the Python\n\
package quelt.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "QueltLibrary developers <queltlibrary@example.org>")
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
# What the binaries load (Debian 12); the Python module is built for the system's Python.
set(QLT_DEB_DEPENDS "libc6 (>= 2.36), libstdc++6 (>= 12)")
if(QLT_WITH_BLUEZ)
  string(APPEND QLT_DEB_DEPENDS ", libsdbus-c++1")
endif()
if(TARGET quelt_native)
  string(APPEND QLT_DEB_DEPENDS
         ", python3 (>= ${QLT_PYTHON_VERSION}~), python3 (<< ${QLT_PYTHON_VERSION}.99)")
endif()
set(CPACK_DEBIAN_PACKAGE_DEPENDS "${QLT_DEB_DEPENDS}")
include(CPack)
