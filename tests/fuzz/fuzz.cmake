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

# So the testbed's framework, Fuzzed.framework beside the others.
set(sparkle "${PROJECT_SOURCE_DIR}/testbed/sparkle")
set(fuzzed "${CMAKE_BINARY_DIR}/sparkle/Fuzzed.framework")
file(GLOB sparkle_sources CONFIGURE_DEPENDS "${sparkle}/*.m")
add_library(sparkle_fuzzed MODULE ${sparkle_sources})
set_target_properties(sparkle_fuzzed PROPERTIES
  PREFIX "" SUFFIX "" OUTPUT_NAME Sparkle LIBRARY_OUTPUT_DIRECTORY "${fuzzed}/Versions/A")
target_compile_options(sparkle_fuzzed PRIVATE ${fuzz_coverage})
target_link_libraries(sparkle_fuzzed PRIVATE warnings gnustep instrumentation crypto archive)
set(SPARKLE_IDENTIFIER org.example.sparkle_fuzzed)
configure_file("${sparkle}/Info-gnustep.plist.in"
  "${fuzzed}/Versions/A/Resources/Info-gnustep.plist" @ONLY)
file(CREATE_LINK A "${fuzzed}/Versions/Current" SYMBOLIC)
file(CREATE_LINK Versions/Current/Resources "${fuzzed}/Resources" SYMBOLIC)
file(CREATE_LINK Versions/Current/Sparkle "${fuzzed}/Sparkle" SYMBOLIC)


add_library(fuzz_support STATIC "${fuzz}/lines.mm" "${fuzz}/support.mm")
target_include_directories(fuzz_support PUBLIC "${PROJECT_SOURCE_DIR}")
target_link_libraries(fuzz_support
  PUBLIC warnings gnustep instrumentation testbed_host testbed_cocoa sparkle_headers)
target_compile_definitions(fuzz_support PRIVATE
  PLUGIN_PATH="$<TARGET_FILE:SparkleKVZ_fuzzed>"
  COMPANION_PATH="$<TARGET_FILE:testbed_companion>"
  FRAMEWORKS="${CMAKE_BINARY_DIR}/sparkle")
add_dependencies(fuzz_support
  SparkleKVZ_fuzzed testbed_companion sparkle_frameworks sparkle_fuzzed)

# Runs a target once over every input that is checked in, on hosts of each year where it starts one.
function(add_fuzzer_test name)
  add_test(NAME fuzz.${name} COMMAND "${fuzz}/replay" ${ARGN} $<TARGET_FILE:fuzz_${name}>
    "${fuzz}/seeds/${name}" "${fuzz}/regressions/${name}" "${CMAKE_BINARY_DIR}/fuzz/${name}")
  set_tests_properties(fuzz.${name} PROPERTIES TIMEOUT 300
    ENVIRONMENT "GCONV_PATH=${CMAKE_SYSROOT}/usr/lib/i386-linux-gnu/gconv")
endfunction()

function(add_fuzzer name)
  add_executable(fuzz_${name} "${fuzz}/${name}.mm")
  target_compile_options(fuzz_${name} PRIVATE ${fuzz_coverage})
  # By its path: the driver would put the C++ library before the sanitizer, which has to be first.
  target_link_libraries(fuzz_${name} PRIVATE fuzz_support
    "${resources}/lib/linux/libclang_rt.fuzzer-i386.a")
  # The plug-in finds the fuzzer's functions here. CMake knows neither that nor run paths for
  # Objective-C++.
  set_target_properties(fuzz_${name} PROPERTIES ENABLE_EXPORTS ON LINKER_LANGUAGE CXX)
endfunction()

foreach(name strings values appcast registration)
  add_fuzzer(${name})
endforeach()
target_link_libraries(fuzz_appcast PRIVATE testbed_steps)
target_compile_definitions(fuzz_appcast PRIVATE PROGRAM_BUNDLE="${TEST_PROGRAM}")

add_fuzzer_test(strings --every-host)
add_fuzzer_test(values --every-host)
add_fuzzer_test(appcast --every-host)
add_fuzzer_test(registration)
# The loader's seeds are bundles that the build makes.
add_fuzzer_test(loader)
set_target_properties(fuzz_loader PROPERTIES EXCLUDE_FROM_ALL OFF)
