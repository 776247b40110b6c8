# What the programs and shared libraries that ship record about themselves.
include(CheckLinkerFlag)

# For the packager: systemd-coredump and others find the package of a binary by this note
# (https://uapi-group.org/specifications/specs/package_metadata_for_executable_files).
set(PELMOR_PACKAGE_NOTE "" CACHE STRING
    "JSON object that each binary carries as its package note, without \"name\"; none if empty")
check_linker_flag(CXX -Wl,--dependency-file=inputs PELMOR_LINKER_LISTS_INPUTS)
# From 3.27 on, CMake has the linker write that list to a file of its own, and the last option counts.
set(CMAKE_LINK_DEPENDS_USE_LINKER OFF)
if(PELMOR_PACKAGE_NOTE)
  check_linker_flag(CXX -Wl,--package-metadata={} PELMOR_LINKER_WRITES_NOTES)
  if(NOT PELMOR_LINKER_WRITES_NOTES)
    message(FATAL_ERROR "PELMOR_PACKAGE_NOTE needs a linker with --package-metadata")
  endif()
endif()

# The target is part of this package. FILE.inputs, next to the FILE of the target, lists the files that
# the linker read, for the bill of materials.
function(pelmor_ships target package)
  if(PELMOR_LINKER_LISTS_INPUTS)
    target_link_options(${target} PRIVATE
      -Wl,--dependency-file=$<TARGET_FILE:${target}>.inputs)
  endif()
  if(PELMOR_PACKAGE_NOTE)
    string(REGEX REPLACE "^{" "{\"name\":\"${package}\"," note "${PELMOR_PACKAGE_NOTE}")
    target_link_options(${target} PRIVATE "SHELL:-Xlinker '--package-metadata=${note}'")
  endif()
endfunction()
