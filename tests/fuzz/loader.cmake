# fuzz_loader: libFuzzer on the Mach-O loader. fuzz_loader_seeds fills build/.../fuzz/loader.
set(seeds "${CMAKE_BINARY_DIR}/fuzz/loader")

add_executable(fuzz_loader EXCLUDE_FROM_ALL
  "${CMAKE_CURRENT_LIST_DIR}/loader.cpp"
  "${MACHO_ROOT}/testbed/loader/fixups.cpp"
  "${MACHO_ROOT}/testbed/loader/image.cpp"
  "${MACHO_ROOT}/testbed/loader/loader.cpp"
  "${MACHO_ROOT}/testbed/loader/reader.cpp")
target_include_directories(fuzz_loader PRIVATE "${MACHO_ROOT}")
target_compile_options(fuzz_loader PRIVATE -O1 -g -fsanitize=fuzzer,address -fno-omit-frame-pointer)
target_link_options(fuzz_loader PRIVATE -fsanitize=fuzzer,address)
target_link_libraries(fuzz_loader PRIVATE warnings)

add_custom_target(fuzz_loader_seeds
  COMMAND ${CMAKE_COMMAND} -E make_directory "${seeds}"
  COMMAND ${CMAKE_COMMAND} -E copy "${MACHO_BUNDLE}" "${MACHO_BUNDLE}.symbols"
          "${MACHO_WORK}/sample.bundle" "${seeds}"
  DEPENDS macho_product macho_sample VERBATIM)
add_dependencies(fuzz_loader fuzz_loader_seeds)
