# 32-bit x86 Linux with the system root that tools/setup unpacks below build/.
# Everything found here runs in place: the binaries name the loader and the libraries of that
# system root, so the machine itself needs no 32-bit packages.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)

get_filename_component(root "${CMAKE_CURRENT_LIST_DIR}/.." ABSOLUTE)
set(SYSROOT "${root}/build/sysroot")
set(CMAKE_SYSROOT "${SYSROOT}")
if(NOT EXISTS "${SYSROOT}/usr/lib/i386-linux-gnu/libc.so")
  message(FATAL_ERROR "The 32-bit system root ${SYSROOT} is not there. Run tools/setup, then try again.")
endif()

# Whole paths: for Objective-C CMake looks nothing up itself.
find_program(CLANG clang-14 REQUIRED)
find_program(CLANGXX clang++-14 REQUIRED)
foreach(language C OBJC)
  set(CMAKE_${language}_COMPILER "${CLANG}")
endforeach()
foreach(language CXX OBJCXX)
  set(CMAKE_${language}_COMPILER "${CLANGXX}")
endforeach()
foreach(language C CXX OBJC OBJCXX)
  set(CMAKE_${language}_COMPILER_TARGET i686-linux-gnu)
endforeach()

set(CMAKE_AR llvm-ar-14)
set(CMAKE_RANLIB llvm-ranlib-14)
set(CMAKE_FIND_ROOT_PATH "${SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# In quotation marks, since the clone may lie in a folder with a space in its name.
set(rpath "${SYSROOT}/usr/lib/i386-linux-gnu:${SYSROOT}/lib/i386-linux-gnu:${SYSROOT}/usr/lib")
set(link_flags "-fuse-ld=lld-14 -Wl,--disable-new-dtags \"-Wl,-rpath,${rpath}\" -Wl,-z,now")
set(CMAKE_EXE_LINKER_FLAGS_INIT
  "${link_flags} \"-Wl,--dynamic-linker=${SYSROOT}/lib/ld-linux.so.2\"")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${link_flags}")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "${link_flags}")
