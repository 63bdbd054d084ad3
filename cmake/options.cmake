option(SPARKLEKVZ_SANITIZE "Build everything with AddressSanitizer and UndefinedBehaviorSanitizer" OFF)

add_library(instrumentation INTERFACE)
if(SPARKLEKVZ_SANITIZE)
  # Everything here is called through addresses that were looked up: no function type is ever the
  # one that was declared.
  set(sanitizers -fsanitize=address,undefined -fno-sanitize=function
                 -fno-sanitize-recover=undefined -shared-libsan
                 -fno-omit-frame-pointer)
  target_compile_options(instrumentation INTERFACE ${sanitizers})
  execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-resource-dir
    OUTPUT_VARIABLE resources OUTPUT_STRIP_TRAILING_WHITESPACE)
  target_link_options(instrumentation INTERFACE
    ${sanitizers} "-Wl,-rpath,${resources}/lib/linux")
endif()

add_library(warnings INTERFACE)
target_compile_options(warnings INTERFACE -Wall -Wextra -Werror)

# 32-bit GNUstep Base with native Objective-C exceptions.
set(GNUSTEP_ROOT "${CMAKE_SYSROOT}/usr")
add_library(gnustep INTERFACE)
target_compile_options(gnustep INTERFACE
  $<$<COMPILE_LANGUAGE:OBJC,OBJCXX>:-fexceptions>
  $<$<COMPILE_LANGUAGE:OBJC,OBJCXX>:-fobjc-runtime=gcc>
  $<$<COMPILE_LANGUAGE:OBJC,OBJCXX>:-fobjc-exceptions>
  $<$<COMPILE_LANGUAGE:OBJC,OBJCXX>:-fconstant-string-class=NSConstantString>)
target_compile_definitions(gnustep INTERFACE _NATIVE_OBJC_EXCEPTIONS)
target_include_directories(gnustep SYSTEM INTERFACE
  "${GNUSTEP_ROOT}/include/GNUstep" "${GNUSTEP_ROOT}/lib/gcc/i686-linux-gnu/12/include")
target_link_directories(gnustep INTERFACE "${GNUSTEP_ROOT}/lib")
target_link_libraries(gnustep INTERFACE gnustep-base objc)
