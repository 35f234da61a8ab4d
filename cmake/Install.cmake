# Install rules: headers under include/QueltLibrary, the library, a CMake package
# (find_package(QueltLibrary CONFIG)) and a pkg-config file.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

install(TARGETS QueltLibrary EXPORT QueltLibraryTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/QueltLibrary
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT QueltLibraryTargets
  NAMESPACE QueltLibrary::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/QueltLibrary)

file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/QueltLibraryConfig.cmake.in [=[
@PACKAGE_INIT@
include(CMakeFindDependencyMacro)
find_dependency(Threads)
if(@QLT_WITH_BLUEZ@)
  # The BlueZ backend's D-Bus library is linked into the library's users too when the
  # library is static.
  find_dependency(sdbus-c++)
endif()
include("${CMAKE_CURRENT_LIST_DIR}/QueltLibraryTargets.cmake")
]=])
configure_package_config_file(${CMAKE_CURRENT_BINARY_DIR}/QueltLibraryConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/QueltLibraryConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/QueltLibrary)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/QueltLibraryConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/QueltLibraryConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/QueltLibraryConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/QueltLibrary)

file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/QueltLibrary.pc.in [=[
prefix=${pcfiledir}/../..
libdir=${prefix}/@CMAKE_INSTALL_LIBDIR@
includedir=${prefix}/@CMAKE_INSTALL_INCLUDEDIR@

Name: QueltLibrary
Description: Bluetooth LE UART-service devices: scanning, connection and reliable transports
Version: @PROJECT_VERSION@
Libs: -L${libdir} -lQueltLibrary @QLT_PC_EXTRA_LIBS@ -pthread
Cflags: -I${includedir} -std=c++20
]=])
if(QLT_WITH_BLUEZ)
  set(QLT_PC_EXTRA_LIBS "-lsdbus-c++")
endif()
configure_file(${CMAKE_CURRENT_BINARY_DIR}/QueltLibrary.pc.in
               ${CMAKE_CURRENT_BINARY_DIR}/QueltLibrary.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/QueltLibrary.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
