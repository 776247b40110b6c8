# The compiler and the libraries, each at least of the oldest version that the tests run with.
# CONTRIBUTING.md has the same list.
set(PELMOR_MINIMUM_GNU 12)
set(PELMOR_MINIMUM_Clang 14)
set(minimum ${PELMOR_MINIMUM_${CMAKE_CXX_COMPILER_ID}})
if(minimum AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS minimum)
  message(FATAL_ERROR "${CMAKE_CXX_COMPILER_ID} ${CMAKE_CXX_COMPILER_VERSION} is too old: at least "
                      "${minimum} is needed")
endif()

find_package(PkgConfig REQUIRED)
pkg_check_modules(SYSTEMD REQUIRED IMPORTED_TARGET libsystemd>=252)
pkg_check_modules(CURL REQUIRED IMPORTED_TARGET libcurl>=7.88)
option(PELMOR_STATIC_LIBCURL "Link libcurl in, built with OpenSSL: see packaging/lean/libcurl" OFF)
if(PELMOR_STATIC_LIBCURL)
  if(NOT pkgcfg_lib_CURL_curl MATCHES "\\.a$")
    message(FATAL_ERROR "${pkgcfg_lib_CURL_curl} is not static; packaging/lean/libcurl makes one that is")
  endif()
  # Nothing in a static library names those that it needs.
  pkg_check_modules(OPENSSL REQUIRED IMPORTED_TARGET libssl libcrypto)
  target_link_libraries(PkgConfig::CURL INTERFACE PkgConfig::OPENSSL)
endif()
find_package(nlohmann_json 3.11 REQUIRED)
