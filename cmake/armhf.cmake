# Cross-compiles for 32-bit ARM with Debian's compiler, and runs what it built under emulation.
#
# The libraries are those of a sysroot, which packaging/arm/sysroot makes.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

get_filename_component(PELMOR_DEFAULT_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build/arm/sysroot
  ABSOLUTE)
set(PELMOR_ARM_SYSROOT ${PELMOR_DEFAULT_SYSROOT} CACHE PATH "Where armhf's libraries are")
if(NOT EXISTS ${PELMOR_ARM_SYSROOT}/usr/lib/arm-linux-gnueabihf)
  message(FATAL_ERROR "No sysroot in ${PELMOR_ARM_SYSROOT}; packaging/arm/sysroot makes it")
endif()
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES PELMOR_ARM_SYSROOT)
set(CMAKE_SYSROOT ${PELMOR_ARM_SYSROOT})

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${CMAKE_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR}
  ${CMAKE_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig)

set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm-static -L ${CMAKE_SYSROOT})
