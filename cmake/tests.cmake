# What test programs are made of, and how ctest runs them. ctest sees programs; tests/runner runs
# the tests of each in processes of their own, on all cores.
find_package(GTest REQUIRED)
cmake_host_system_information(RESULT TEST_CORES QUERY NUMBER_OF_LOGICAL_CORES)

add_library(test_runner STATIC
  "${PROJECT_SOURCE_DIR}/tests/runner/main.cpp" "${PROJECT_SOURCE_DIR}/tests/runner/runner.cpp")
target_include_directories(test_runner PUBLIC "${PROJECT_SOURCE_DIR}/tests/runner")
target_compile_definitions(test_runner PRIVATE _FILE_OFFSET_BITS=64)
target_link_libraries(test_runner PUBLIC gmock gtest PRIVATE warnings instrumentation)

# add_test_program(NAME SOURCE...): what takes long in a test is not its own code, so that is not
# optimised, which takes the compiler three times as long.
function(add_test_program name)
  add_executable(${name} ${ARGN})
  target_compile_options(${name} PRIVATE -O0)
  target_link_libraries(${name} PRIVATE test_runner text_tables)
  # CMake knows the flags for run paths of C++, but not of Objective-C++.
  set_target_properties(${name} PROPERTIES LINKER_LANGUAGE CXX)
endfunction()

# run_test_program(TEST PROGRAM [PLUGIN]): a run of a test program, against this plug-in.
function(run_test_program test program)
  add_test(NAME ${test} COMMAND ${program})
  set(environment "SPARKLEKVZ_PROGRAM=${test}")
  if(ARGN)
    list(APPEND environment "SPARKLEKVZ_PLUGIN=${ARGN}")
  endif()
  set_tests_properties(${test} PROPERTIES
    TIMEOUT 1800 PROCESSORS ${TEST_CORES} ENVIRONMENT "${environment}")
endfunction()
