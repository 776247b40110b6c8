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
find_package(nlohmann_json 3.11 REQUIRED)
