# Defines pelmor::client and, for C, pelmor::pelmor, the libraries for reporters to the telemetry
# daemon of the access point.
include(CMakeFindDependencyMacro)
find_dependency(PkgConfig)
# Not PkgConfig::SYSTEMD, which the calling project may define otherwise.
pkg_check_modules(PELMOR_CLIENT_SYSTEMD QUIET IMPORTED_TARGET libsystemd)
if(NOT PELMOR_CLIENT_SYSTEMD_FOUND)
  set(pelmor-client_FOUND FALSE)
  set(pelmor-client_NOT_FOUND_MESSAGE "pkg-config finds no libsystemd")
  return()
endif()
include(${CMAKE_CURRENT_LIST_DIR}/pelmor-client-targets.cmake)
