# Cross-compiles for PELMOR_ARCHITECTURE, one of packaging/cross/architectures, with Debian's compiler,
# and runs what it built under emulation.
#
# The libraries are those of a sysroot, which packaging/cross/sysroot makes.
set(PELMOR_ARCHITECTURE "" CACHE STRING "Debian's name of the architecture to compile for")
get_filename_component(pelmor_root ${CMAKE_CURRENT_LIST_DIR}/.. ABSOLUTE)
file(STRINGS ${pelmor_root}/packaging/cross/architectures pelmor_line
  REGEX "^${PELMOR_ARCHITECTURE} ")
if(NOT pelmor_line)
  message(FATAL_ERROR "No architecture '${PELMOR_ARCHITECTURE}' in packaging/cross/architectures")
endif()
separate_arguments(pelmor_line UNIX_COMMAND "${pelmor_line}")
list(GET pelmor_line 1 pelmor_triplet)
list(GET pelmor_line 2 pelmor_emulator)
list(GET pelmor_line 3 CMAKE_SYSTEM_PROCESSOR)
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${pelmor_triplet}-gcc)
set(CMAKE_CXX_COMPILER ${pelmor_triplet}-g++)

set(PELMOR_SYSROOT ${pelmor_root}/build/sysroot/${PELMOR_ARCHITECTURE}
  CACHE PATH "Where the architecture's libraries are")
if(NOT EXISTS ${PELMOR_SYSROOT}/usr/lib/${pelmor_triplet})
  message(FATAL_ERROR "No sysroot in ${PELMOR_SYSROOT}; packaging/cross/sysroot makes it")
endif()
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES PELMOR_ARCHITECTURE PELMOR_SYSROOT)
set(CMAKE_SYSROOT ${PELMOR_SYSROOT})

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${CMAKE_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR}
  ${CMAKE_SYSROOT}/usr/lib/${pelmor_triplet}/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig)

# By the program's own loader: with its option -L the emulator would open folders of the sysroot, "/" for
# one, in place of the machine's.
file(GLOB pelmor_loader ${CMAKE_SYSROOT}/lib/ld*.so.*)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-${pelmor_emulator}-static ${pelmor_loader} --library-path
  ${CMAKE_SYSROOT}/lib/${pelmor_triplet}:${CMAKE_SYSROOT}/usr/lib/${pelmor_triplet})
