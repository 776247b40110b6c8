# C++ bindings of the D-Bus interface descriptions, generated into the build tree and included as
# "bindings/<name>.h".
#
# dbus_adaptor(<target> <name> <description>)
# dbus_proxies(<target> <name> SERVICE <name> [OBJECT_MANAGER <path>] DESCRIPTIONS <description>...)
#
# Each adds the sources to the target, which the users of the header link.

# The system's own, where it is: another one on the PATH lacks its packages.
find_program(PELMOR_PYTHON python3 PATHS /usr/bin NO_DEFAULT_PATH DOC "Runs the generator")
find_program(PELMOR_PYTHON python3 REQUIRED)
set(DBUS_BINDINGS_DIR ${PROJECT_BINARY_DIR}/generated)
set(DBUS_BINDINGS_TOOL ${PROJECT_SOURCE_DIR}/dbus/generator)

function(dbus_adaptor target name description)
  pelmor_generate_bindings(${target} ${name} DESCRIPTIONS ${description} ARGUMENTS adaptor)
endfunction()

function(dbus_proxies target name)
  cmake_parse_arguments(ARG "" "SERVICE;OBJECT_MANAGER" "DESCRIPTIONS" ${ARGN})
  set(arguments proxies --service ${ARG_SERVICE})
  if(ARG_OBJECT_MANAGER)
    list(APPEND arguments --object-manager ${ARG_OBJECT_MANAGER})
  endif()
  pelmor_generate_bindings(${target} ${name} DESCRIPTIONS ${ARG_DESCRIPTIONS}
    ARGUMENTS ${arguments})
endfunction()

function(pelmor_generate_bindings target name)
  cmake_parse_arguments(ARG "" "" "DESCRIPTIONS;ARGUMENTS" ${ARGN})
  list(TRANSFORM ARG_DESCRIPTIONS PREPEND ${CMAKE_CURRENT_SOURCE_DIR}/)
  file(GLOB tool_files CONFIGURE_DEPENDS
    ${DBUS_BINDINGS_TOOL}/*.py ${DBUS_BINDINGS_TOOL}/templates/*.j2)
  set(output ${DBUS_BINDINGS_DIR}/bindings/${name})
  file(MAKE_DIRECTORY ${DBUS_BINDINGS_DIR}/bindings)
  add_custom_command(
    OUTPUT ${output}.h ${output}.cc
    COMMAND ${PELMOR_PYTHON} -B ${DBUS_BINDINGS_TOOL}/generate_bindings.py ${ARG_ARGUMENTS}
      --header ${output}.h --source ${output}.cc --include bindings/${name}.h ${ARG_DESCRIPTIONS}
    DEPENDS ${tool_files} ${ARG_DESCRIPTIONS}
    COMMENT "Generating bindings/${name}"
    VERBATIM)
  target_sources(${target} PRIVATE ${output}.h ${output}.cc)
  target_include_directories(${target} PUBLIC ${DBUS_BINDINGS_DIR})
endfunction()
