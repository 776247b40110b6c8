# Installs both libraries for pkg-config, as pelmor-client and pelmor, and for
# find_package(pelmor-client CONFIG). The latter also works in this build folder.
include(CMakePackageConfigHelpers)
set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/pelmor-client)

install(FILES pelmor/client.h pelmor/pelmor.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/pelmor COMPONENT client-dev)
install(TARGETS pelmor-client EXPORT pelmor-client-targets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT client-dev)
install(TARGETS pelmor EXPORT pelmor-client-targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT client NAMELINK_COMPONENT client-dev)

configure_file(pelmor-client.pc.in pelmor-client.pc @ONLY)
configure_file(pelmor.pc.in pelmor.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/pelmor-client.pc ${CMAKE_CURRENT_BINARY_DIR}/pelmor.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT client-dev)

configure_file(pelmor-client-config.cmake pelmor-client-config.cmake COPYONLY)
# Before 1.0, minor versions may change the interface.
write_basic_package_version_file(pelmor-client-config-version.cmake COMPATIBILITY SameMinorVersion)
install(
  FILES
    ${CMAKE_CURRENT_BINARY_DIR}/pelmor-client-config.cmake
    ${CMAKE_CURRENT_BINARY_DIR}/pelmor-client-config-version.cmake
  DESTINATION ${package_folder} COMPONENT client-dev)
install(EXPORT pelmor-client-targets NAMESPACE pelmor::
  DESTINATION ${package_folder} COMPONENT client-dev)
export(EXPORT pelmor-client-targets NAMESPACE pelmor::)
