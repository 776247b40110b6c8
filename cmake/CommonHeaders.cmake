# pelmor_share_common_headers(<folder>...)
#
# The static libraries of these folders read the standard headers that most of them include once for
# all: a third to a half of what compiling such a file takes. The packages and ./dev lint do without,
# so that a file which forgets an include fails there.
option(PELMOR_SHARE_HEADERS "Precompile the headers that most files include" ${PELMOR_BUILD_TESTS})
function(pelmor_share_common_headers)
  if(NOT PELMOR_SHARE_HEADERS)
    return()
  endif()
  file(CONFIGURE OUTPUT common_headers.cc CONTENT "")
  add_library(common_headers OBJECT EXCLUDE_FROM_ALL ${PROJECT_BINARY_DIR}/common_headers.cc)
  target_precompile_headers(common_headers PRIVATE
    <algorithm> <array> <cstdint> <deque> <functional> <map> <memory> <optional> <ostream> <sstream>
    <string> <string_view> <utility> <variant> <vector>)
  foreach(folder IN LISTS ARGN)
    get_property(targets DIRECTORY ${folder} PROPERTY BUILDSYSTEM_TARGETS)
    foreach(target IN LISTS targets)
      get_target_property(type ${target} TYPE)
      if(type STREQUAL STATIC_LIBRARY)
        target_precompile_headers(${target} REUSE_FROM common_headers)
      endif()
    endforeach()
  endforeach()
endfunction()
