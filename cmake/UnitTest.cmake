# pelmor_unit_test(<name> [LONG] SOURCES <file>... LIBS <target>...)
#
# One test program of a folder, its cases registered with CTest one by one. Those of a LONG one are
# started first, so that none of them is left to run alone at the end.
if(PELMOR_BUILD_TESTS)
  find_package(GTest 1.12 REQUIRED)
  include(GoogleTest)

  # Read once for all tests: they are the most of what compiling a test takes. Clang's tools can't
  # read what gcc makes of them, and ./dev lint has them do without.
  file(CONFIGURE OUTPUT test_headers.cc CONTENT "int main() {}")
  add_executable(test_headers EXCLUDE_FROM_ALL ${PROJECT_BINARY_DIR}/test_headers.cc)
  target_link_libraries(test_headers PRIVATE GTest::gmock)
  target_precompile_headers(test_headers PRIVATE
    <algorithm> <functional> <map> <memory> <string> <vector> <gmock/gmock.h> <gtest/gtest.h>)
endif()

function(pelmor_unit_test name)
  if(NOT PELMOR_BUILD_TESTS)
    return()
  endif()
  cmake_parse_arguments(ARG "LONG" "" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} GTest::gmock GTest::gtest_main)
  target_precompile_headers(${name} REUSE_FROM test_headers)
  gtest_discover_tests(${name} TEST_PREFIX ${name}: DISCOVERY_MODE PRE_TEST
                       PROPERTIES TIMEOUT 180 COST $<BOOL:${ARG_LONG}>)
endfunction()
