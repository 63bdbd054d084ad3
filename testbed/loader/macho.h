// The numbers of the Mach-O format that the loader uses, as documented for 32-bit files.
#pragma once

#include <cstdint>

namespace loader::macho {

inline constexpr std::uint32_t magic = 0xFEEDFACE, fatMagic = 0xCAFEBABE;
inline constexpr std::uint32_t cpuI386 = 7, cpuSubtypeI386 = 3, bundleFile = 8;

// Flags of the header.
inline constexpr std::uint32_t noUndefined = 0x1, dyldLink = 0x4, twoLevel = 0x80;

enum Command : std::uint32_t {
  LC_SEGMENT = 0x1,
  LC_SYMTAB = 0x2,
  LC_DYSYMTAB = 0xB,
  LC_LOAD_DYLIB = 0xC,
  LC_UUID = 0x1B,
  LC_DYLD_INFO_ONLY = 0x80000022,
};

inline constexpr std::uint32_t mayRead = 1, mayWrite = 2, mayExecute = 4;

// Section types, the low byte of a section's flags.
inline constexpr std::uint32_t regular = 0, zeroFill = 1, strings = 2, literals4 = 3, literals8 = 4,
                               literals16 = 14;

enum RebaseOpcode : std::uint8_t {
  REBASE_DONE = 0x00,
  REBASE_SET_TYPE = 0x10,
  REBASE_SET_SEGMENT_AND_OFFSET = 0x20,
  REBASE_ADD_ADDRESS = 0x30,
  REBASE_ADD_ADDRESS_SCALED = 0x40,
  REBASE_DO_TIMES = 0x50,
  REBASE_DO_ULEB_TIMES = 0x60,
  REBASE_DO_ADD_ADDRESS = 0x70,
  REBASE_DO_ULEB_TIMES_SKIPPING = 0x80,
};

enum BindOpcode : std::uint8_t {
  BIND_DONE = 0x00,
  BIND_SET_LIBRARY = 0x10,
  BIND_SET_LIBRARY_ULEB = 0x20,
  BIND_SET_SYMBOL = 0x40,
  BIND_SET_TYPE = 0x50,
  BIND_SET_ADDEND = 0x60,
  BIND_SET_SEGMENT_AND_OFFSET = 0x70,
  BIND_ADD_ADDRESS = 0x80,
  BIND_DO = 0x90,
  BIND_DO_ADD_ADDRESS = 0xA0,
  BIND_DO_ADD_ADDRESS_SCALED = 0xB0,
  BIND_DO_ULEB_TIMES_SKIPPING = 0xC0,
};

inline constexpr std::uint8_t typePointer = 1, symbolIsWeak = 1;

// Symbol table entries.
inline constexpr std::uint8_t symbolStab = 0xE0, symbolType = 0x0E, symbolInSection = 0x0E;

} // namespace loader::macho
