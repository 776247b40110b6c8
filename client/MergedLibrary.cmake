# The target pelmor-client: libpelmor-client.a contains the library and our code below it, merged into
# one object in which only the symbols of the header are global. So it cannot clash with code in the
# caller's program that has the names of our platform.
set(object ${CMAKE_CURRENT_BINARY_DIR}/pelmor-client.o)
set(parts pelmor_bindings_client kestle_dbus_utils kestle dbus base)
list(TRANSFORM parts REPLACE "(.+)" "$<TARGET_FILE:\\1>" OUTPUT_VARIABLE archives)
separate_arguments(flags NATIVE_COMMAND "${CMAKE_CXX_FLAGS}")
include(CheckCXXCompilerFlag)
include(CheckCXXSourceCompiles)
check_cxx_compiler_flag(-fno-gnu-unique PELMOR_CAN_AVOID_UNIQUE_SYMBOLS)
if(PELMOR_CAN_AVOID_UNIQUE_SYMBOLS)
  # objcopy cannot make unique symbols local.
  list(APPEND flags -fno-gnu-unique)
  foreach(part pelmor_client_parts ${parts})
    target_compile_options(${part} PRIVATE -fno-gnu-unique)
  endforeach()
endif()
# The result is machine code, not LTO bytecode, so that any compiler can link it.
set(merge_with_lto -flto=auto -flinker-output=nolto-rel)
block()
  # A relocatable object can't be linked as a position-independent executable.
  set(CMAKE_POSITION_INDEPENDENT_CODE OFF)
  set(CMAKE_REQUIRED_LINK_OPTIONS -r -nostdlib ${merge_with_lto})
  check_cxx_source_compiles("int main() { return 0; }" PELMOR_CAN_MERGE_WITH_LTO)
endblock()
if(CMAKE_INTERPROCEDURAL_OPTIMIZATION AND PELMOR_CAN_MERGE_WITH_LTO)
  string(TOUPPER "${CMAKE_BUILD_TYPE}" build_type)
  separate_arguments(optimization NATIVE_COMMAND "${CMAKE_CXX_FLAGS_${build_type}}")
  list(APPEND flags ${optimization} -fPIC ${merge_with_lto})
elseif(CMAKE_INTERPROCEDURAL_OPTIMIZATION)
  set_target_properties(pelmor_client_parts ${parts} PROPERTIES INTERPROCEDURAL_OPTIMIZATION OFF)
endif()

add_custom_command(
  OUTPUT ${object}
  COMMAND ${CMAKE_CXX_COMPILER} ${flags} -r -nostdlib -Wl,--force-group-allocation -o ${object}.all
    -Wl,--whole-archive $<TARGET_FILE:pelmor_client_parts> -Wl,--no-whole-archive
    -Wl,--start-group ${archives} -Wl,--end-group
  COMMAND ${CMAKE_OBJCOPY} --wildcard
    --keep-global-symbol=!_ZN6pelmor6Client4Impl* --keep-global-symbol=!_ZNK6pelmor6Client4Impl*
    --keep-global-symbol=_ZN6pelmor6Client* --keep-global-symbol=_ZNK6pelmor6Client*
    ${object}.all ${object}
  DEPENDS pelmor_client_parts ${parts}
  COMMENT "Merging libpelmor-client"
  VERBATIM)
add_library(pelmor-client STATIC ${object})
set_target_properties(pelmor-client PROPERTIES LINKER_LANGUAGE CXX EXPORT_NAME client)
target_compile_features(pelmor-client INTERFACE cxx_std_17)
target_include_directories(pelmor-client INTERFACE
  $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
# pelmor-client-config.cmake defines a target of the same name.
pkg_check_modules(PELMOR_CLIENT_SYSTEMD REQUIRED IMPORTED_TARGET libsystemd)
target_link_libraries(pelmor-client PRIVATE PkgConfig::PELMOR_CLIENT_SYSTEMD)
