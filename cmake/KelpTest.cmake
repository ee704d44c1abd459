# kelp_add_test(NAME SOURCES src... [LIBS lib...])
# One GoogleTest executable registered with ctest test by test. Discovery runs
# when ctest runs, so a build never executes test code.
find_package(GTest REQUIRED)
include(GoogleTest)

function(kelp_add_test name)
  cmake_parse_arguments(T "" "" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${T_SOURCES})
  target_link_libraries(${name} PRIVATE ${T_LIBS} GTest::gtest GTest::gtest_main GTest::gmock
                        pthread)
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests
                        BUILD_RPATH "${CMAKE_BINARY_DIR}/lib")
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST
                       PROPERTIES ENVIRONMENT "KELP_SOURCE_DIR=${CMAKE_SOURCE_DIR}")
endfunction()
