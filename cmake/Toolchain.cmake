# How everything here is compiled and linked, whatever the preset.
include(CheckPIESupported)
include(Requirements)

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
check_pie_supported(LANGUAGES CXX)

# Errors in ./dev and CI alone, by CMAKE_COMPILE_WARNING_AS_ERROR: the next compiler may warn of more.
add_compile_options(-Wall -Wextra -fno-exceptions)
# A 64-bit clock on 32-bit machines too.
add_compile_definitions(_TIME_BITS=64 _FILE_OFFSET_BITS=64)
# A debug build checks the preconditions of the standard library's containers.
add_compile_definitions($<$<CONFIG:Debug>:_GLIBCXX_ASSERTIONS>)
# The platform's own includes come first: `base/…`, `dbus/…`, `kestle/…`, `metrics/…`.
include_directories(${PROJECT_SOURCE_DIR}/platform ${PROJECT_SOURCE_DIR})
# Log lines and fatal checks name files as the source tree does.
add_compile_options(-fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=)

option(PELMOR_HARDEN "Harden the binary (needs an optimising build)" OFF)
if(PELMOR_HARDEN)
  add_compile_options(-fstack-protector-strong -fstack-clash-protection)
  add_compile_definitions(_FORTIFY_SOURCE=2)
  add_link_options(-Wl,-z,relro,-z,now,-z,noexecstack)
endif()
add_link_options(-Wl,--as-needed)

if(CMAKE_INTERPROCEDURAL_OPTIMIZATION)
  include(CheckIPOSupported)
  check_ipo_supported(RESULT lto_works OUTPUT reason LANGUAGES CXX)
  if(NOT lto_works)
    message(WARNING "Without link-time optimisation, which fails with this toolchain: ${reason}")
    set(CMAKE_INTERPROCEDURAL_OPTIMIZATION OFF)
  endif()
endif()

option(PELMOR_STATIC_LIBSTDCXX
       "Link libstdc++ and libgcc in: smaller where nothing else on the device uses them"
       OFF)
if(PELMOR_STATIC_LIBSTDCXX)
  add_link_options(-static-libstdc++ -static-libgcc)
endif()

set(PELMOR_SANITIZE "" CACHE STRING "Sanitizers to build with, as -fsanitize takes them")
if(PELMOR_SANITIZE)
  add_compile_options(-fsanitize=${PELMOR_SANITIZE} -fno-sanitize-recover=all
                      -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${PELMOR_SANITIZE})
endif()
