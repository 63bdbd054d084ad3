# libFuzzer on the plug-in, in sanitizer builds: one program a target, and its known inputs as tests.
# See README.md.
if(NOT SPARKLEKVZ_SANITIZE)
  return()
endif()

set(fuzz "${CMAKE_CURRENT_LIST_DIR}")
set(fuzz_coverage -fsanitize=fuzzer-no-link)

# The plug-in once more, telling the fuzzer which branches it takes.
add_product(SparkleKVZ_fuzzed)
target_sources(SparkleKVZ_fuzzed PRIVATE "${fuzz}/counters.c")
target_compile_options(SparkleKVZ_fuzzed PRIVATE
  $<$<COMPILE_LANGUAGE:CXX>:${fuzz_coverage}>)

add_library(fuzz_support STATIC "${fuzz}/support.mm")
target_include_directories(fuzz_support PUBLIC "${PROJECT_SOURCE_DIR}")
target_link_libraries(fuzz_support
  PUBLIC warnings gnustep instrumentation testbed_host testbed_cocoa sparkle_headers)
target_compile_definitions(fuzz_support PRIVATE
  PLUGIN_PATH="$<TARGET_FILE:SparkleKVZ_fuzzed>"
  COMPANION_PATH="$<TARGET_FILE:testbed_companion>"
  FRAMEWORKS="${CMAKE_BINARY_DIR}/sparkle")
add_dependencies(fuzz_support SparkleKVZ_fuzzed testbed_companion sparkle_frameworks)

function(add_fuzzer name)
  add_executable(fuzz_${name} "${fuzz}/${name}.mm")
  target_compile_options(fuzz_${name} PRIVATE ${fuzz_coverage})
  # By its path: the driver would put the C++ library before the sanitizer, which has to be first.
  target_link_libraries(fuzz_${name} PRIVATE fuzz_support
    "${resources}/lib/linux/libclang_rt.fuzzer-i386.a")
  # The plug-in finds the fuzzer's functions here.
  set_target_properties(fuzz_${name} PROPERTIES ENABLE_EXPORTS ON)
endfunction()

foreach(name strings values)
  add_fuzzer(${name})
endforeach()
