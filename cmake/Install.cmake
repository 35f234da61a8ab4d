# Install rules: headers under include/QueltLibrary, the shared and the static library, a
# CMake package (find_package(QueltLibrary CONFIG): QueltLibrary::QueltLibrary is the shared
# library, or the static one when QueltLibrary_USE_STATIC_LIBS is true; QueltLibrary::Shared
# and QueltLibrary::Static name each) and two pkg-config files (QueltLibrary, the shared one;
# QueltLibrary-static).
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

install(TARGETS QueltLibrary QueltLibraryStatic EXPORT QueltLibraryTargets
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
if(@QLT_WITH_BLUEZ@ AND QueltLibrary_USE_STATIC_LIBS)
  # The BlueZ backend's D-Bus library is linked into the library's users too when the
  # library is static.
  find_dependency(sdbus-c++)
endif()
include("${CMAKE_CURRENT_LIST_DIR}/QueltLibraryTargets.cmake")
if(NOT TARGET QueltLibrary::QueltLibrary)
  add_library(QueltLibrary::QueltLibrary INTERFACE IMPORTED)
  if(QueltLibrary_USE_STATIC_LIBS)
    set_target_properties(QueltLibrary::QueltLibrary PROPERTIES
      INTERFACE_LINK_LIBRARIES QueltLibrary::Static)
  else()
    set_target_properties(QueltLibrary::QueltLibrary PROPERTIES
      INTERFACE_LINK_LIBRARIES QueltLibrary::Shared)
  endif()
endif()
]=])
configure_package_config_file(${CMAKE_CURRENT_BINARY_DIR}/QueltLibraryConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/QueltLibraryConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/QueltLibrary)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/QueltLibraryConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/QueltLibraryConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/QueltLibraryConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/QueltLibrary)

# pkg-config: QueltLibrary links the shared library, QueltLibrary-static the archive (with
# what the archive needs: the BlueZ backend's D-Bus library).
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/QueltLibrary.pc.in [=[
prefix=${pcfiledir}/../..
libdir=${prefix}/@CMAKE_INSTALL_LIBDIR@
includedir=${prefix}/@CMAKE_INSTALL_INCLUDEDIR@

Name: QueltLibrary@QLT_PC_SUFFIX@
Description: Bluetooth LE UART-service devices: scanning, connection and reliable transports
Version: @PROJECT_VERSION@
Libs: @QLT_PC_LIBS@ -pthread
Cflags: -I${includedir} -std=c++20
]=])
set(QLT_PC_SUFFIX "")
set(QLT_PC_LIBS "-L\${libdir} -lQueltLibrary")
configure_file(${CMAKE_CURRENT_BINARY_DIR}/QueltLibrary.pc.in
               ${CMAKE_CURRENT_BINARY_DIR}/QueltLibrary.pc @ONLY)
set(QLT_PC_SUFFIX "-static")
set(QLT_PC_LIBS "\${libdir}/libQueltLibrary.a")
if(QLT_WITH_BLUEZ)
  string(APPEND QLT_PC_LIBS " -lsdbus-c++")
endif()
configure_file(${CMAKE_CURRENT_BINARY_DIR}/QueltLibrary.pc.in
               ${CMAKE_CURRENT_BINARY_DIR}/QueltLibrary-static.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/QueltLibrary.pc
              ${CMAKE_CURRENT_BINARY_DIR}/QueltLibrary-static.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
