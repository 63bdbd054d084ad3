#include "testbed/loader/loader.h"
#include "tests/macho/sample/sample.h"

#include <array>
#include <cstring>
#include <dlfcn.h>
#include <fstream>
#include <functional>
#include <gmock/gmock.h>
#include <iterator>
#include <setjmp.h>
#include <system_error>
#include <unistd.h>

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

extern "C" void REALPluginMain(Resolver resolve); // the sample, built as ELF

namespace {

using Bytes = std::vector<std::uint8_t>;

const Bytes& sample() {
  static const Bytes bytes = [] {
    std::ifstream file(SAMPLE_BUNDLE, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(file), {});
  }();
  return bytes;
}

std::vector<std::string> lines;
void report(const char* line) { lines.push_back(line); }
[[noreturn]] void jump(void* buffer) { longjmp(*static_cast<jmp_buf*>(buffer), 1); }

void* resolveForSample(const char* name) {
  if (!strcmp(name, "report")) return reinterpret_cast<void*>(report);
  if (!strcmp(name, "jump")) return reinterpret_cast<void*>(jump);
  return nullptr;
}

std::vector<std::string> linesOf(void (*entry)(Resolver)) {
  lines.clear();
  entry(resolveForSample);
  return std::move(lines);
}

// The sample counts its calls, so this asks once.
const std::vector<std::string>& elfLines() {
  static const std::vector<std::string> lines = linesOf(REALPluginMain);
  return lines;
}

void* resolveFromC(const char* name) { return dlsym(RTLD_DEFAULT, name); }

unsigned long theTypeID() { return 77; }
void* resolveWithWeak(const char* name) {
  return strcmp(name, "CGLayerGetTypeID") ? resolveFromC(name) : reinterpret_cast<void*>(theTypeID);
}

std::unique_ptr<loader::Bundle> loadSample(loader::Options options = {resolveFromC}) {
  return loader::load(sample(), "folder/sample.bundle", options);
}

std::string permissionsAt(const void* address) {
  std::ifstream maps("/proc/self/maps");
  unsigned long start, end, wanted = reinterpret_cast<unsigned long>(address);
  for (std::string line; std::getline(maps, line);) {
    char permissions[8];
    if (sscanf(line.c_str(), "%lx-%lx %4s", &start, &end, permissions) == 3 && start <= wanted &&
        wanted < end)
      return permissions;
  }
  return "unmapped";
}

// --- What is loaded does what the same sources do as ELF.

class AtAddress : public testing::TestWithParam<std::uintptr_t> {};
INSTANTIATE_TEST_SUITE_P(Loader, AtAddress, testing::Values(0, 0x10000000, 0x48000000, 0x71235000));

TEST_P(AtAddress, ReportsWhatTheElfBuildReports) {
  ASSERT_GE(elfLines().size(), 25u);
  auto bundle = loadSample({resolveFromC, GetParam()});
  if (GetParam())
    EXPECT_EQ(GetParam(), reinterpret_cast<std::uintptr_t>(bundle->segments[0].start));
  EXPECT_EQ(elfLines(), linesOf(bundle->entry<void(Resolver)>()));
}

TEST(Loader, TwoCopiesShareNothing) {
  auto one = loadSample(), two = loadSample();
  auto expected = linesOf(one->entry<void(Resolver)>());
  EXPECT_NE(expected, linesOf(one->entry<void(Resolver)>())) << "the sample counts its calls";
  EXPECT_EQ(expected, linesOf(two->entry<void(Resolver)>()));
}

TEST(Loader, BindsAWeakImportThatIsThere) {
  auto bundle = loadSample({resolveWithWeak});
  EXPECT_THAT(linesOf(bundle->entry<void(Resolver)>()), testing::Contains("weak: 77 77 77"));
}

TEST(Loader, MakesAMissingWeakImportNull) {
  EXPECT_THAT(linesOf(loadSample()->entry<void(Resolver)>()), testing::Contains("weak: -1 -1 -1"));
}

TEST(Loader, ReadsTheFileItself) {
  auto bundle = loader::loadFile(SAMPLE_BUNDLE, {resolveFromC});
  EXPECT_EQ("sample.bundle", bundle->name);
  EXPECT_THAT(bundle->libraries, testing::Contains("/usr/lib/libobjc.A.dylib"));
}

TEST(Loader, ProtectsTheSegmentsAndUnmapsThem) {
  auto bundle = loadSample();
  ASSERT_EQ(3u, bundle->segments.size());
  const void *text = bundle->segments[0].start, *data = bundle->segments[1].start;
  EXPECT_EQ("r-xp", permissionsAt(text));
  EXPECT_EQ("rw-p", permissionsAt(data));
  EXPECT_FALSE(bundle->segments[0].writable);
  EXPECT_TRUE(bundle->segments[1].writable);
  bundle.reset();
  EXPECT_EQ("unmapped", permissionsAt(text));
}

TEST(Loader, DoesNotMapOverWhatIsThere) {
  auto bundle = loadSample();
  auto taken = reinterpret_cast<std::uintptr_t>(bundle->segments[0].start);
  EXPECT_THROW(loadSample({resolveFromC, taken}), std::system_error);
}

TEST(Loader, SaysThatAFileIsMissing) {
  EXPECT_THROW(loader::loadFile("/no/such/file"), std::system_error);
}

TEST(Loader, NamesAddresses) {
  auto bundle = loader::loadFile(SAMPLE_BUNDLE, {resolveFromC});
  auto* entry = static_cast<char*>(bundle->symbol("REALPluginMain"));
  ASSERT_NE(nullptr, entry);
  EXPECT_EQ("sample.bundle: REALPluginMain + 12", loader::describe(entry + 12));
  EXPECT_STREQ("sample.bundle: REALPluginMain + 1", loader_describe(entry + 1));
  std::string others;
  for (char* at = entry; at < entry + 0x800; at += 4) others += loader::describe(at) + "\n";
  EXPECT_THAT(others, HasSubstr("sample.bundle: scale(float*) + 4\n"));
  EXPECT_THAT(others, HasSubstr("sample.bundle: (anonymous namespace)::guarded("));
  EXPECT_THAT(loader::describe(bundle->segments[1].start), StartsWith("sample.bundle: "));
  EXPECT_EQ("", loader::describe(&bundle));
  EXPECT_EQ(nullptr, loader_describe(&bundle));
  EXPECT_EQ(nullptr, bundle->symbol("REALPluginMai"));
  EXPECT_EQ(nullptr, bundle->symbol("REALPluginMainX"));
  EXPECT_EQ(nullptr, bundle->symbol("somethingElse"));
  bundle.reset();
  EXPECT_EQ("", loader::describe(entry));
}

TEST(Loader, NamesAddressesFromTheBundleItselfWithoutASymbolFile) {
  auto bundle = loadSample();
  auto* entry = static_cast<char*>(bundle->symbol("REALPluginMain"));
  EXPECT_EQ("sample.bundle: REALPluginMain + 12", loader::describe(entry + 12));
  EXPECT_EQ("sample.bundle: 0x10", loader::describe(bundle->segments[0].start + 16));
}

// A symbol file of another build would give wrong names.
TEST(Loader, IgnoresTheSymbolsOfOtherCode) {
  std::string path = testing::TempDir() + "loader_test." + std::to_string(getpid());
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(sample().data()), sample().size());
  std::ifstream symbols(SAMPLE_BUNDLE ".symbols", std::ios::binary);
  std::string other(std::istreambuf_iterator<char>(symbols), {});
  other[0x900] ^= 1;
  std::ofstream(path + ".symbols", std::ios::binary) << other;
  auto bundle = loader::loadFile(path, {resolveFromC});
  unlink(path.c_str());
  unlink((path + ".symbols").c_str());
  auto* entry = static_cast<char*>(bundle->symbol("REALPluginMain"));
  EXPECT_THAT(loader::describe(entry - 1), HasSubstr(": 0x"));
}

TEST(Loader, LooksImportsUpInTheProcess) {
  EXPECT_EQ(reinterpret_cast<void*>(strlen), loader::resolveFromProcess("strlen"));
  EXPECT_EQ(nullptr, loader::resolveFromProcess("noSuchFunctionAnywhere"));
}

// --- Refusals: the sample with something wrong in it.

std::uint32_t wordAt(const Bytes& bytes, std::size_t at) {
  std::uint32_t word;
  memcpy(&word, &bytes.at(at), sizeof word);
  return word;
}

void setWord(Bytes& bytes, std::size_t at, std::uint32_t word) {
  memcpy(&bytes.at(at), &word, sizeof word);
}

constexpr std::uint32_t segmentCommand = 0x1, symbolCommand = 0x2, dynamicSymbolCommand = 0xB,
                        libraryCommand = 0xC, linkCommand = 0x80000022, uuidCommand = 0x1B;

// Offset of the n-th load command of a kind.
std::size_t commandAt(const Bytes& bytes, std::uint32_t kind, int n = 0) {
  std::size_t at = 28;
  for (std::uint32_t i = 0; i < wordAt(bytes, 16); ++i) {
    if (wordAt(bytes, at) == kind && n-- == 0) return at;
    at += wordAt(bytes, at + 4);
  }
  throw std::out_of_range("no such load command in the sample");
}

// Sets one word of a load command.
std::function<void(Bytes&)> set(std::uint32_t kind, std::size_t offset, std::uint32_t word,
                                int n = 0) {
  return [=](Bytes& bytes) { setWord(bytes, commandAt(bytes, kind, n) + offset, word); };
}

// Puts opcodes in the place of a table of LC_DYLD_INFO_ONLY.
std::function<void(Bytes&)> opcodes(std::size_t field, Bytes opcodes) {
  return [=](Bytes& bytes) {
    std::size_t at = commandAt(bytes, linkCommand) + field;
    ASSERT_GE(wordAt(bytes, at + 4), opcodes.size());
    std::copy(opcodes.begin(), opcodes.end(), bytes.begin() + wordAt(bytes, at));
    setWord(bytes, at + 4, opcodes.size());
  };
}
constexpr std::size_t rebaseField = 8, bindField = 16, exportField = 40;
std::function<void(Bytes&)> rebases(Bytes bytes) { return opcodes(rebaseField, std::move(bytes)); }
std::function<void(Bytes&)> binds(Bytes bytes) { return opcodes(bindField, std::move(bytes)); }
std::function<void(Bytes&)> exports(Bytes bytes) { return opcodes(exportField, std::move(bytes)); }

Bytes fat(std::vector<std::pair<std::uint32_t, Bytes>> parts) {
  Bytes file;
  auto put = [&](std::size_t word) {
    for (int shift = 24; shift >= 0; shift -= 8) file.push_back(word >> shift);
  };
  put(0xCAFEBABE);
  put(parts.size());
  std::size_t offset = 4096;
  for (auto& [processor, bytes] : parts) {
    for (std::size_t word :
         {std::size_t{processor}, std::size_t{3}, offset, bytes.size(), std::size_t{12}})
      put(word);
    offset += (bytes.size() + 4095) / 4096 * 4096;
  }
  for (auto& part : parts) {
    file.resize((file.size() + 4095) / 4096 * 4096);
    file.insert(file.end(), part.second.begin(), part.second.end());
  }
  return file;
}

struct Wrong {
  const char* name;
  std::function<void(Bytes&)> make;
  const char* where; // the load command
  const char* reason;
};

std::ostream& operator<<(std::ostream& out, const Wrong& wrong) { return out << wrong.name; }

class Refuses : public testing::TestWithParam<Wrong> {};

TEST_P(Refuses, WithFileLoadCommandAndOffset) {
  Bytes bytes = sample();
  GetParam().make(bytes);
  bytes.shrink_to_fit();
  try {
    loader::load(bytes, "folder/sample.bundle", {resolveFromC});
    FAIL() << "was loaded";
  } catch (const loader::Refusal& refusal) {
    EXPECT_THAT(refusal.what(),
                AllOf(StartsWith("folder/sample.bundle: "), HasSubstr(GetParam().where),
                      HasSubstr("at offset 0x"), HasSubstr(GetParam().reason)));
  }
}

std::function<void(Bytes&)> header(std::size_t offset, std::uint32_t word) {
  return [=](Bytes& bytes) { setWord(bytes, offset, word); };
}

const char* const table = "(LC_DYLD_INFO_ONLY), ";
constexpr std::size_t firstSection = 56;

INSTANTIATE_TEST_SUITE_P(
    Header, Refuses,
    testing::Values(
        Wrong{"NoFile", [](Bytes& bytes) { bytes.clear(); }, "Mach header", "4 bytes are wanted"},
        Wrong{"SomethingElse", header(0, 0x464C457F), "Mach header", "not a 32-bit Mach-O file"},
        Wrong{"SixtyFourBits", header(0, 0xFEEDFACF), "Mach header", "not a 32-bit Mach-O file"},
        Wrong{"OtherProcessor", header(4, 18), "Mach header", "for processor 0x12, not i386"},
        Wrong{"OtherVariant", header(8, 4), "Mach header", "for i386 variant 0x4"},
        Wrong{"Library", header(12, 6), "Mach header", "of file type 0x6, not a bundle"},
        Wrong{"FlatNamespace", header(24, 0x5), "Mach header", "two-level namespace"},
        Wrong{"OtherFlags", header(24, 0x100085), "Mach header", "flags 0x100085"},
        Wrong{"CommandsBeyondFile", header(20, 0x7FFFFFFF), "Mach header", "the file ends at"},
        Wrong{"TooManyCommands", header(16, 1000), "load command ", "the load commands end at"},
        Wrong{"TooFewCommands", header(16, 3), "load commands", "do not fill their space"},
        Wrong{"FatWithoutIt",
              [](Bytes& bytes) {
                bytes = fat({{18, bytes}, {0x1000007, bytes}});
              },
              "fat header", "a fat file without i386, for the processors 0x12, 0x1000007"},
        Wrong{"FatBeyondFile",
              [](Bytes& bytes) {
                bytes = fat({{7, bytes}});
                bytes.resize(bytes.size() - 1);
              },
              "fat header", "reaches beyond the file"},
        Wrong{"FatTable",
              [](Bytes& bytes) {
                bytes = fat({});
                bytes[7] = 200;
              },
              "fat header", "the file ends at"},
        Wrong{"WrongInsideFat",
              [](Bytes& bytes) {
                setWord(bytes, 4, 18);
                bytes = fat({{7, bytes}});
              },
              "Mach header", "at offset 0x1004: for processor 0x12"}),
    testing::PrintToStringParamName());

INSTANTIATE_TEST_SUITE_P(
    Commands, Refuses,
    testing::Values(
        Wrong{"Unknown", set(uuidCommand, 0, 0x80000028), "load command ",
              "unknown load command 0x80000028"},
        Wrong{"FunctionStarts", set(uuidCommand, 0, 0x26), "load command ",
              "unknown load command 0x26"},
        Wrong{"CodeSignature", set(uuidCommand, 0, 0x1D), "load command ",
              "unknown load command 0x1d"},
        Wrong{"Twice", set(symbolCommand, 0, uuidCommand), "(LC_UUID)", "a second one"},
        Wrong{"SizeZero", set(uuidCommand, 4, 0), "(LC_UUID)", "its size is 0x0"},
        Wrong{"SizeOdd", set(uuidCommand, 4, 18), "(LC_UUID)", "its size is 0x12"},
        Wrong{"SizeHuge", set(uuidCommand, 4, 0xFFFFFFF0), "(LC_UUID)", "its size is 0xfffffff0"},
        Wrong{"SizeOther", set(uuidCommand, 4, 20), "(LC_UUID)", "not 0x18"},
        Wrong{"NoLinkInformation",
              [](Bytes& bytes) {
                std::size_t at = commandAt(bytes, linkCommand);
                setWord(bytes, at, libraryCommand);
                setWord(bytes, at + 8, 44);
              },
              "load commands", "LC_DYLD_INFO_ONLY is missing"},
        Wrong{"LibraryShort", set(libraryCommand, 4, 20), "(LC_LOAD_DYLIB)", "its size is 0x14"},
        Wrong{"LibraryName", set(libraryCommand, 8, 4000), "(LC_LOAD_DYLIB)",
              "the name begins at 0xfa0"},
        Wrong{"LibraryNameEndless",
              [](Bytes& bytes) {
                std::size_t at = commandAt(bytes, libraryCommand);
                for (std::size_t i = 24; i < wordAt(bytes, at + 4); ++i) bytes[at + i] = 'x';
              },
              "(LC_LOAD_DYLIB)", "a text without an end"},
        Wrong{"WeakBindings", set(linkCommand, 28, 8), "(LC_DYLD_INFO_ONLY)", "weak bindings"},
        Wrong{"LazyBindings", set(linkCommand, 36, 8), "(LC_DYLD_INFO_ONLY)", "lazy bindings"},
        Wrong{"TableBeyondFile", set(linkCommand, 20, 0xFFFFFF00), "(LC_DYLD_INFO_ONLY)",
              "reaches beyond the file"},
        Wrong{"SymbolsBeyondFile", set(symbolCommand, 12, 0x20000000), "(LC_SYMTAB)",
              "reaches beyond the file"},
        Wrong{"SymbolName", set(symbolCommand, 20, 4), "(LC_SYMTAB)", "a text "},
        Wrong{"IndirectSymbols", set(dynamicSymbolCommand, 60, 1), "(LC_DYSYMTAB)",
              "indirect symbols"},
        Wrong{"ExternalRelocations", set(dynamicSymbolCommand, 68, 1), "(LC_DYSYMTAB)",
              "external relocation entries"},
        Wrong{"LocalRelocations", set(dynamicSymbolCommand, 76, 1), "(LC_DYSYMTAB)",
              "local relocation entries"}),
    testing::PrintToStringParamName());

INSTANTIATE_TEST_SUITE_P(
    Segments, Refuses,
    testing::Values(Wrong{"BeyondFile", set(segmentCommand, 36, 0x4000, 1),
                          "load command 1 (LC_SEGMENT)", "__DATA reaches beyond the file"},
                    Wrong{"OffsetBeyondFile", set(segmentCommand, 32, 0xFFFFF000, 1),
                          "load command 1 (LC_SEGMENT)", "__DATA reaches beyond the file"},
                    Wrong{"OverlapInMemory", set(segmentCommand, 24, 0, 1),
                          "load command 1 (LC_SEGMENT)", "__DATA overlaps __TEXT"},
                    Wrong{"OverlapInFile",
                          [](Bytes& bytes) {
                            std::size_t at = commandAt(bytes, segmentCommand, 1);
                            setWord(bytes, at + 32, 0);
                          },
                          "load command 1 (LC_SEGMENT)", "__DATA overlaps __TEXT"},
                    Wrong{"MoreInFileThanInMemory", set(segmentCommand, 28, 0x800, 0),
                          "load command 0 (LC_SEGMENT)", "more room in the file"},
                    Wrong{"Unaligned", set(segmentCommand, 24, 0x1800, 1),
                          "load command 1 (LC_SEGMENT)", "__DATA has address 0x1800"},
                    Wrong{"WrapsAround", set(segmentCommand, 24, 0xFFFFF000, 1),
                          "load command 1 (LC_SEGMENT)", "__DATA has address 0xfffff000"},
                    Wrong{"FarAway", set(segmentCommand, 24, 0x40000000, 1),
                          "load command 1 (LC_SEGMENT)", "the segments span more than"},
                    Wrong{"Huge", set(segmentCommand, 28, 0x40000000, 2), "(LC_SEGMENT)",
                          "the segments span more than"},
                    Wrong{"Short", set(segmentCommand, 4, 52), "load command 0 (LC_SEGMENT)",
                          "its size is 0x34, not 0x38"},
                    Wrong{"Empty",
                          [](Bytes& bytes) {
                            set(segmentCommand, 28, 0, 2)(bytes);
                            set(segmentCommand, 36, 0, 2)(bytes);
                          },
                          "(LC_SEGMENT)", "__LINKEDIT is empty"},
                    Wrong{"Protection", set(segmentCommand, 44, 0x17),
                          "load command 0 (LC_SEGMENT)", "__TEXT has protection 0x17"},
                    Wrong{"Flags", set(segmentCommand, 52, 8), "load command 0 (LC_SEGMENT)",
                          "__TEXT has flags 0x8"},
                    Wrong{"SectionCount", set(segmentCommand, 48, 0x10000000),
                          "load command 0 (LC_SEGMENT)", "does not fit its 268435456 sections"},
                    Wrong{"HeaderOutside",
                          [](Bytes& bytes) {
                            std::size_t at = commandAt(bytes, segmentCommand);
                            setWord(bytes, at, libraryCommand);
                            setWord(bytes, at + 8, 24);
                          },
                          "load commands", "they do not lie in the first segment"},
                    Wrong{"SectionOutside", set(segmentCommand, firstSection + 36, 0x100000),
                          "load command 0 (LC_SEGMENT)", "__TEXT,__text is not inside its segment"},
                    Wrong{"SectionElsewhere", set(segmentCommand, firstSection + 40, 0x40),
                          "load command 0 (LC_SEGMENT)", "__TEXT,__text is elsewhere in the file"},
                    Wrong{"SectionRelocations", set(segmentCommand, firstSection + 52, 1),
                          "load command 0 (LC_SEGMENT)", "__TEXT,__text has relocation entries"},
                    Wrong{"StaticConstructors", set(segmentCommand, firstSection + 56, 9, 1),
                          "load command 1 (LC_SEGMENT)", "__DATA,__data is of type 0x9"},
                    Wrong{"LazyPointers", set(segmentCommand, firstSection + 56, 7, 1),
                          "load command 1 (LC_SEGMENT)", "__DATA,__data is of type 0x7"},
                    Wrong{"ZeroFillWithContents",
                          set(segmentCommand, firstSection + 68 + 40, 0x1000, 1),
                          "load command 1 (LC_SEGMENT)",
                          "__DATA,__bss is zero-filled and has contents"}),
    testing::PrintToStringParamName());

// Opcodes: 0x11 a pointer, 0x2S segment S and offset, 0x5N rebase N times; 0x1N library N,
// 0x40 symbol, 0x51 a pointer, 0x7S segment S and offset, 0x90 bind.
INSTANTIATE_TEST_SUITE_P(
    Tables, Refuses,
    testing::Values(
        Wrong{"RebaseOpcode", rebases({0x11, 0xF0}), table, "unknown rebase opcode 0xf0"},
        Wrong{"RebaseType", rebases({0x12}), table, "rebase type 0x2"},
        Wrong{"RebaseWithoutType", rebases({0x21, 0, 0x51}), table, "a rebase before its type"},
        Wrong{"RebaseWithoutSegment", rebases({0x11, 0x51}), table, "before any segment"},
        Wrong{"RebaseSegment", rebases({0x11, 0x27, 0}), table, "segment 7 of 3"},
        Wrong{"RebaseInText", rebases({0x11, 0x20, 0, 0x51}), table,
              "a word in __TEXT, which is not writable"},
        Wrong{"RebaseInLinkEdit", rebases({0x11, 0x22, 0, 0x51}), table,
              "a word in __LINKEDIT, which is not writable"},
        Wrong{"RebaseBeyond", rebases({0x11, 0x21, 0xFD, 0x9F, 0x01, 0x51}), table,
              "a word beyond __DATA: 0x4ffd of 0x5000"},
        Wrong{"RebaseTooOften", rebases({0x11, 0x21, 0, 0x60, 0xFF, 0xFF, 0xFF, 0xFF, 0x0F}), table,
              "a word beyond __DATA: 0x5000"},
        Wrong{"RebaseBackwards",
              rebases({0x11, 0x21, 8, 0x51, 0x30, 0xF8, 0xFF, 0xFF, 0xFF, 0x0F, 0x51}), table,
              "a word beyond __DATA"},
        Wrong{"RebaseTwice", rebases({0x11, 0x21, 4, 0x51, 0x21, 6, 0x51}), table, "is set twice"},
        Wrong{"RebaseNumberTooLong",
              rebases({0x11, 0x21, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x01}), table,
              "does not fit in 32 bits"},
        Wrong{"RebaseNumberTooLarge", rebases({0x11, 0x21, 0xFF, 0xFF, 0xFF, 0xFF, 0x1F}), table,
              "does not fit in 32 bits"},
        Wrong{"RebaseCutOff", rebases({0x11, 0x21, 0x80}), table, "in the middle of an entry"},
        Wrong{"BindOpcode", binds({0xD0}), table, "unknown bind opcode 0xd0"},
        Wrong{"BindSpecialLibrary", binds({0x3F}), table, "unknown bind opcode 0x3f"},
        Wrong{"BindLibrary", binds({0x17}), table, "library 7 of 6"},
        Wrong{"BindLibraryNone", binds({0x10}), table, "library 0 of 6"},
        Wrong{"BindLibraryLong", binds({0x20, 0xFF, 0x7F}), table, "library 16383 of 6"},
        Wrong{"BindType", binds({0x52}), table, "binding type 0x2"},
        Wrong{"BindFlags", binds({0x48, '_', 'f', 0}), table, "symbol flags 0x8"},
        Wrong{"BindEndlessName", binds({0x40, '_', 'f'}), table, "a text without an end"},
        Wrong{"BindNoSymbol", binds({0x11, 0x51, 0x71, 0, 0x90}), table,
              "a binding without symbol, type or library"},
        Wrong{"BindNoLibrary", binds({0x40, '_', 'f', 'r', 'e', 'e', 0, 0x51, 0x71, 0, 0x90}),
              table, "a binding without symbol, type or library"},
        Wrong{"BindNoSegment", binds({0x11, 0x40, '_', 'f', 'r', 'e', 'e', 0, 0x51, 0x90}), table,
              "before any segment"},
        Wrong{"BindInText", binds({0x11, 0x40, '_', 'f', 'r', 'e', 'e', 0, 0x51, 0x70, 0, 0x90}),
              table, "a word in __TEXT, which is not writable"},
        Wrong{"BindMissing",
              binds({0x11, 0x40, '_', 'n', 'o', 'n', 'e', 0, 0x51, 0x71, 0xC0, 1, 0x90}), table,
              "nobody provides _none of /usr/lib/libSystem.B.dylib"},
        Wrong{"BindTwoMissing",
              binds({0x11, 0x40, '_', 'x', 'x', 'x', 0, 0x12, 0x40, '_', 'y', 'y', 'y', 0}), table,
              "nobody provides _xxx of /usr/lib/libSystem.B.dylib, _yyy of "
              "/usr/lib/libobjc.A.dylib"},
        Wrong{"BindNameWithoutUnderscore", binds({0x11, 0x40, 'f', 'r', 'e', 'e', 0}), table,
              "nobody provides free"},
        Wrong{"BindAddendLarge", binds({0x60, 0xFF, 0xFF, 0xFF, 0xFF, 0x3F}), table,
              "does not fit in 32 bits"},
        Wrong{"BindAddend", binds({0x60, 0x80, 0x80, 0x80, 0x80, 0x80, 0x00}), table,
              "does not fit in 32 bits"}),
    testing::PrintToStringParamName());

TEST(Loader, LoadsTheRightPartOfAFatFile) {
  Bytes other(5000, 0xAB), file = fat({{18, other}, {7, sample()}});
  auto bundle = loader::load(file, "fat.bundle", {resolveFromC});
  EXPECT_EQ(elfLines(), linesOf(bundle->entry<void(Resolver)>()));
}

TEST(Loader, RefusesEveryBeginningOfTheFile) {
  for (std::size_t size = 0; size < sample().size(); size += size < 2000 ? 1 : 7) {
    Bytes beginning(sample().begin(), sample().begin() + size);
    EXPECT_THROW(loader::load(beginning, "beginning", {resolveFromC}), loader::Refusal) << size;
  }
}

TEST(Loader, AddsTheAddendOfABinding) {
  Bytes bytes = sample();
  // free + 5, and free - 2, one word on.
  binds({0x11, 0x40, '_', 'f', 'r', 'e', 'e', 0, 0x51, 0x60, 5, 0x71, 0, 0xA0, 4, 0x60, 0x7E,
         0x90})(bytes);
  rebases({0x11})(bytes);
  auto bundle = loader::load(bytes, "addend", {resolveFromC});
  auto* data = reinterpret_cast<std::uint32_t*>(bundle->segments[1].start);
  auto address = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(free));
  EXPECT_EQ(address + 5, data[0]);
  EXPECT_EQ(address - 2, data[2]);
}

TEST(Loader, UnderstandsEveryWayToSayAnAddress) {
  Bytes bytes = sample();
  std::size_t data = wordAt(bytes, commandAt(bytes, segmentCommand, 1) + 32);
  for (std::size_t i = 0; i < 32; ++i) setWord(bytes, data + 4 * i, 0x1000 + i);
  rebases({0x11, 0x21, 4, 0x51, // word 1
           0x30, 4, 0x41, 0x51, // 4
           0x60, 2,             // 5, 6
           0x70, 8, 0x51,       // 7, 10
           0x80, 2, 4, 0x51,    // 11, 13, 15
           0x00, 0xFF})(bytes);
  binds({0x11, 0x51, 0x40, '_', 'f', 'r', 'e', 'e', 0, 0x71, 80, 0x90, // word 20
         0x80, 4,    0xB1,                                             // 22
         0xC0, 2,    0,                                                // 24, 25
         0x00, 0xFF})(bytes);
  auto bundle = loader::load(bytes, "addresses", {resolveFromC});
  auto base = reinterpret_cast<std::uintptr_t>(bundle->segments[0].start);
  auto* words = reinterpret_cast<std::uint32_t*>(bundle->segments[1].start);
  auto free = reinterpret_cast<std::uintptr_t>(::free);
  for (std::uint32_t i = 0; i < 32; ++i) {
    bool bound = i == 20 || i == 22 || i == 24 || i == 25;
    bool rebased = i == 1 || (i >= 4 && i <= 7) || i == 10 || i == 11 || i == 13 || i == 15;
    EXPECT_EQ(bound ? free : 0x1000 + i + (rebased ? base : 0), words[i]) << i;
  }
}

// The trie is read when a symbol is asked for.
std::string refusalOfSymbol(Bytes trie, const char* symbol) {
  Bytes bytes = sample();
  exports(std::move(trie))(bytes);
  auto bundle = loader::load(bytes, "trie", {resolveFromC});
  try {
    return bundle->symbol(symbol) ? "found" : "not found";
  } catch (const loader::Refusal& refusal) {
    return refusal.what();
  }
}

TEST(Loader, RefusesABrokenExportTrie) {
  EXPECT_EQ("found", refusalOfSymbol({0, 1, '_', 'f', 0, 6, 2, 0, 0x10, 0}, "f"));
  EXPECT_EQ("not found", refusalOfSymbol({0, 1, '_', 'f', 0, 6, 2, 0, 0x10, 0}, "g"));
  EXPECT_EQ("not found", refusalOfSymbol({}, "f"));
  EXPECT_THAT(refusalOfSymbol({9, 0}, "f"), HasSubstr("an entry beyond the trie"));
  EXPECT_THAT(refusalOfSymbol({0}, "f"), HasSubstr("in the middle of an entry"));
  EXPECT_THAT(refusalOfSymbol({0, 1, '_', 'f', 0, 40}, "f"),
              HasSubstr("a branch that leads nowhere"));
  EXPECT_THAT(refusalOfSymbol({0, 1, 0, 4}, "f"), HasSubstr("a branch that leads nowhere"));
  EXPECT_THAT(refusalOfSymbol({0, 1, '_', 'f', 0, 0}, "f"),
              HasSubstr("a branch that leads nowhere"));
  EXPECT_THAT(refusalOfSymbol({0, 1, '_', 'f', 0, 6, 2, 8, 0x10, 0}, "f"),
              HasSubstr("export flags 0x8"));
  EXPECT_THAT(refusalOfSymbol({0, 1, '_', 'f', 0, 6, 4, 0, 0x80, 0x80, 0x40, 0}, "f"),
              HasSubstr("outside of every segment"));
}

} // namespace
