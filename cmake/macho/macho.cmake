# macho_bundle(TARGET OUTPUT bundle SOURCES file...)
#
# Adds TARGET, which cross-builds the sources, given relative to the top of the tree, into a Mach-O
# bundle for i386 Mac OS X 10.6. REALPluginMain is its one exported symbol. How and why:
# docs/macho.md.
include_guard()

# Debian's own, which sees Debian's modules (the tests use one).
find_program(MACHO_PYTHON python3 PATHS /usr/bin NO_DEFAULT_PATH REQUIRED)
find_program(MACHO_CXX clang++-14 REQUIRED)
find_program(MACHO_LINK_MODULES llvm-link-14 REQUIRED)
find_program(MACHO_OPTIMISE opt-14 REQUIRED)
find_program(MACHO_GENERATE llc-14 REQUIRED)
# From the package lld-13, the last one whose linker knows i386.
find_program(MACHO_LINKER NAMES ld64.lld.darwinold-13 ld64.lld.darwinold
  PATHS /usr/lib/llvm-13/bin REQUIRED)

set(MACHO_DIR "${CMAKE_CURRENT_LIST_DIR}")
cmake_path(GET MACHO_DIR PARENT_PATH MACHO_ROOT)
cmake_path(GET MACHO_ROOT PARENT_PATH MACHO_ROOT)
set(MACHO_WORK "${CMAKE_BINARY_DIR}/macho")
set(MACHO_BUNDLE "${MACHO_WORK}/SparkleKVZ.dylib")
set(MACHO_ARCHIVE "${MACHO_ROOT}/dist/SparkleKVZ.xojo_plugin")
# The bundle as taken out of the archive, for whoever runs it here.
set(MACHO_PLUGIN "${MACHO_WORK}/plugin/SparkleKVZ/Build Resources/Mac Cocoa/SparkleKVZ.dylib")
set(MACHO_ENTRY REALPluginMain)
set(MACHO_TARGET -target i386-apple-macosx10.6)
# For 10.6 the code generator would call __bzero, which other C libraries lack, instead of memset.
set(MACHO_GENERATE_FOR i386-apple-macosx10.5)
set(MACHO_LINK_FLAGS -arch i386 -macosx_version_min 10.6 -sdk_version 10.6)

# Of the C++ library those headers that need no C library, taken from the system root; the C
# headers are in include/.
execute_process(COMMAND ${MACHO_CXX} -print-file-name=include
  OUTPUT_VARIABLE compiler_headers OUTPUT_STRIP_TRAILING_WHITESPACE)
# -Oz, since the bundle is to stay below 60,000 bytes.
set(MACHO_COMPILE_FLAGS ${MACHO_TARGET} -std=c++20 -Oz -Wall -Wextra -Werror
  -fno-exceptions -fno-rtti -fno-threadsafe-statics -fno-stack-protector
  -fvisibility=hidden -fvisibility-inlines-hidden
  -fno-builtin-memset_pattern16 # Mac OS X alone has it
  -nostdinc -nostdinc++
  -isystem "${MACHO_DIR}/include"
  -isystem "${CMAKE_SYSROOT}/usr/include/c++/12"
  -isystem "${CMAKE_SYSROOT}/usr/include/i386-linux-gnu/c++/12"
  -isystem "${compiler_headers}"
  -I "${MACHO_ROOT}" "-ffile-prefix-map=${MACHO_ROOT}/=")

set(MACHO_LISTS)
set(MACHO_LIBRARIES)
foreach(name libSystem libobjc CoreFoundation Foundation CoreServices ApplicationServices)
  set(list "${MACHO_DIR}/imports/${name}.txt")
  set(stub "${MACHO_WORK}/imports/${name}")
  list(APPEND MACHO_LISTS "${list}")
  list(APPEND MACHO_LIBRARIES "${stub}.dylib")
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${list}")
  file(STRINGS "${list}" install_name LIMIT_COUNT 1)
  string(REPLACE "library " "" install_name "${install_name}")
  add_custom_command(OUTPUT "${stub}.dylib"
    COMMAND ${MACHO_PYTHON} -B "${MACHO_DIR}/stub_library.py" "${list}" "${stub}.s"
    COMMAND ${MACHO_CXX} ${MACHO_TARGET} -c "${stub}.s" -o "${stub}.o"
    COMMAND ${MACHO_LINKER} ${MACHO_LINK_FLAGS} -dylib -install_name "${install_name}" "${stub}.o"
            -o "${stub}.dylib"
    DEPENDS "${list}" "${MACHO_DIR}/stub_library.py" "${MACHO_DIR}/imports.py"
    COMMENT "Stub library for ${install_name}" VERBATIM)
endforeach()
file(MAKE_DIRECTORY "${MACHO_WORK}/imports")
add_custom_target(macho_imports DEPENDS ${MACHO_LIBRARIES})

function(macho_bundle target)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" OUTPUT SOURCES)
  set(work "${MACHO_WORK}/${target}")
  set(modules)
  foreach(source IN LISTS arg_SOURCES)
    set(module "${work}/${source}.bc")
    get_filename_component(folder "${module}" DIRECTORY)
    file(MAKE_DIRECTORY "${folder}")
    list(APPEND modules "${module}")
    add_custom_command(OUTPUT "${module}"
      COMMAND ${MACHO_CXX} ${MACHO_COMPILE_FLAGS} -emit-llvm
              -MD -MF "${module}.d" -MQ "${module}"
              -c "${MACHO_ROOT}/${source}" -o "${module}"
      DEPENDS "${MACHO_ROOT}/${source}" DEPFILE "${module}.d"
      COMMENT "Mach-O module ${source}" VERBATIM)
  endforeach()

  get_filename_component(folder "${arg_OUTPUT}" DIRECTORY)
  file(MAKE_DIRECTORY "${folder}")
  set(all "${work}/all")
  # The same object linked for another address shows whether its code depends on the address.
  add_custom_command(OUTPUT "${arg_OUTPUT}" "${arg_OUTPUT}.symbols" "${arg_OUTPUT}.elsewhere"
    COMMAND ${MACHO_LINK_MODULES} ${modules} -o "${all}.bc"
    COMMAND ${MACHO_OPTIMISE} "-passes=internalize,default<Oz>"
            --internalize-public-api-list=${MACHO_ENTRY} "${all}.bc" -o "${all}.opt.bc"
    COMMAND ${MACHO_GENERATE} -O2 -relocation-model=pic -mtriple=${MACHO_GENERATE_FOR}
            "${all}.opt.bc" -o "${all}.s"
    COMMAND ${MACHO_PYTHON} -B "${MACHO_DIR}/bind.py" "${all}.s" "${all}.bound.s" ${MACHO_LISTS}
    COMMAND ${MACHO_CXX} ${MACHO_TARGET} -c "${all}.bound.s" -o "${all}.o"
    COMMAND ${MACHO_LINKER} ${MACHO_LINK_FLAGS} -bundle -exported_symbol _${MACHO_ENTRY}
            "${all}.o" ${MACHO_LIBRARIES} -o "${all}.linked"
    COMMAND ${MACHO_LINKER} ${MACHO_LINK_FLAGS} -bundle -exported_symbol _${MACHO_ENTRY}
            -image_base 0x10000000 "${all}.o" ${MACHO_LIBRARIES} -o "${arg_OUTPUT}.elsewhere"
    COMMAND ${MACHO_PYTHON} -B "${MACHO_DIR}/finish.py" "${all}.linked"
            "${arg_OUTPUT}" "${arg_OUTPUT}.symbols" ${MACHO_LISTS}
    DEPENDS ${modules} ${MACHO_LISTS} ${MACHO_LIBRARIES} "${MACHO_DIR}/bind.py"
            "${MACHO_DIR}/finish.py" "${MACHO_DIR}/imports.py"
    COMMENT "Mach-O bundle ${target}" VERBATIM)
  add_custom_target(${target} DEPENDS "${arg_OUTPUT}")
  add_dependencies(${target} macho_imports)
endfunction()
