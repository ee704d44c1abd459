# kelp_add_test(NAME SOURCES src... [LIBS lib...] [CONCURRENCY filter])
# One GoogleTest executable registered with ctest test by test. Discovery runs
# when ctest runs, so a build never executes test code.
#
# CONCURRENCY names, as a GoogleTest filter ("Suite.*:Other.Name"), the tests
# of the executable that run threads beside each other (request threads, the
# refresh, monitor and aggregation threads, the control socket, rescans during
# walks); "*" names them all. They carry the ctest label `concurrency`, which
# `make tsan` runs under ThreadSanitizer; the other tests stay unlabelled.
find_package(GTest REQUIRED)
include(GoogleTest)

function(kelp_add_test name)
  cmake_parse_arguments(T "" "CONCURRENCY" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${T_SOURCES})
  target_link_libraries(${name} PRIVATE ${T_LIBS} GTest::gtest GTest::gtest_main GTest::gmock
                        pthread)
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests
                        BUILD_RPATH "${CMAKE_BINARY_DIR}/lib")
  set(environment "KELP_SOURCE_DIR=${CMAKE_SOURCE_DIR}")
  if(NOT T_CONCURRENCY)
    gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST PROPERTIES ENVIRONMENT "${environment}")
    return()
  endif()
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST TEST_FILTER "${T_CONCURRENCY}"
                       PROPERTIES ENVIRONMENT "${environment}" LABELS concurrency)
  if(NOT T_CONCURRENCY STREQUAL "*")
    gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST TEST_FILTER "-${T_CONCURRENCY}"
                         PROPERTIES ENVIRONMENT "${environment}")
  endif()
endfunction()
