// The plug-in's bundle out of the archive, mapped at several addresses, up to the registration of
// its classes, for which it makes its Cocoa classes. Everything after that is tested through the
// host.
#include "testbed/loader/loader.h"

#include <cstring>
#include <fstream>
#include <gmock/gmock.h>

using testing::ElementsAre;

namespace {

using Resolver = void* (*)(const char* name);

double version;
std::vector<std::int32_t> announced;
std::vector<const std::uint32_t*> registered;

void* resolveHostOperation(const char* name) {
  if (!strcmp(name, "RegisterPluginVersion"))
    return reinterpret_cast<void*>(+[](std::int32_t version) { announced.push_back(version); });
  if (!strcmp(name, "REALGetRBVersion")) return reinterpret_cast<void*>(+[] { return version; });
  if (!strcmp(name, "PluginRegisterClass"))
    return reinterpret_cast<void*>(
        +[](const std::uint32_t* definition) { registered.push_back(definition); });
  return nullptr;
}

const char* nameOf(const std::uint32_t* definition) {
  return reinterpret_cast<const char*>(definition[1]);
}

std::string readAll(const char* path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

class Plugin : public testing::TestWithParam<std::uintptr_t> {
protected:
  void start(double hostVersion) {
    version = hostVersion;
    // The host never unloads a plug-in: it holds on to what was registered.
    static auto& loaded = *new std::vector<std::unique_ptr<loader::Bundle>>;
    address = GetParam() ? GetParam() + 0x100000 * loaded.size() : 0;
    loaded.push_back(loader::loadFile(MACHO_PLUGIN, {.address = address}));
    bundle = loaded.back().get();
    bundle->entry<void(Resolver)>()(resolveHostOperation);
  }
  void TearDown() override {
    announced.clear();
    registered.clear();
  }
  bool inWritableSegment(const void* address) const {
    auto* byte = static_cast<const std::uint8_t*>(address);
    for (const loader::Segment& segment : bundle->segments)
      if (segment.writable && byte >= segment.start && byte < segment.start + segment.size)
        return true;
    return false;
  }

  loader::Bundle* bundle = nullptr;
  std::uintptr_t address = 0;
};

INSTANTIATE_TEST_SUITE_P(AtAddress, Plugin, testing::Values(0, 0x10000000, 0x48001000, 0x71235000));

TEST_P(Plugin, RegistersItsClasses) {
  start(2014.1);
  if (address) EXPECT_EQ(address, reinterpret_cast<std::uintptr_t>(bundle->segments[0].start));
  EXPECT_THAT(announced, ElementsAre(12));
  std::vector<std::string> names;
  for (const std::uint32_t* definition : registered) {
    names.push_back(nameOf(definition));
    EXPECT_EQ(12u, definition[0]);
    EXPECT_EQ(0u, reinterpret_cast<std::uintptr_t>(definition) % 4);
    EXPECT_TRUE(inWritableSegment(definition)) << nameOf(definition);
  }
  EXPECT_THAT(names, ElementsAre("SUVersionComparisonKVZ", "SUAppcastItemKVZ", "SUUpdaterKVZ",
                                 "SUAppcastKVZ"));
}

TEST_P(Plugin, RegistersTheOldLayoutWithAnOldHost) {
  start(2011.4);
  EXPECT_THAT(announced, ElementsAre(9));
  ASSERT_EQ(4u, registered.size());
  for (const std::uint32_t* definition : registered) EXPECT_EQ(9u, definition[0]);
}

TEST_P(Plugin, NamesItsFunctions) {
  start(2014.1);
  auto constructor = reinterpret_cast<const void*>(registered.at(0)[5]);
  EXPECT_EQ(bundle->name + ": ", loader::describe(constructor).substr(0, bundle->name.size() + 2));
  EXPECT_THAT(loader::describe(constructor), testing::HasSubstr("onstructor"));
}

TEST(Archive, HoldsWhatIsTestedHere) {
  // Stored without compression, the bundle stands in the archive as it is.
  std::string plugin = readAll(MACHO_PLUGIN), archive = readAll(MACHO_ARCHIVE);
  ASSERT_GT(plugin.size(), 10000u);
  std::size_t first = archive.find(plugin);
  ASSERT_NE(std::string::npos, first);
  EXPECT_NE(std::string::npos, archive.find(plugin, first + 1));
}

} // namespace
