# pelmor_unit_test(<name> SOURCES <file>... LIBS <target>...)
#
# One test program of a folder, its cases registered with CTest one by one.
if(PELMOR_BUILD_TESTS)
  find_package(GTest REQUIRED)
  include(GoogleTest)
endif()

function(pelmor_unit_test name)
  if(NOT PELMOR_BUILD_TESTS)
    return()
  endif()
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} GTest::gmock GTest::gtest_main)
  gtest_discover_tests(${name} TEST_PREFIX ${name}: DISCOVERY_MODE PRE_TEST
                       PROPERTIES TIMEOUT 180)
endfunction()
