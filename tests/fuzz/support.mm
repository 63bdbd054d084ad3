#include "support.h"

#include "testbed/cocoa/crossing.h"
#include "testbed/companion/companion.h"

#include <objc/runtime.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <link.h>
#include <map>
#include <regex>
#include <vector>

// GNUstep's header hides them from programs with NDEBUG.
extern "C" {
BOOL GSDebugAllocationActive(BOOL active);
int GSDebugAllocationCount(Class type);
}

extern "C" const char* __asan_default_options() {
  // The host's ledger and the counts below see more than the leak checker, which takes GNUstep's
  // own tables for leaks.
  return "detect_leaks=0:allocator_may_return_null=1:quarantine_size_mb=32";
}

static std::string pluginPath;

// The plug-in makes its Cocoa classes anew when its globals are put back, and finds their names
// free. It gets the same ones again: the runtime knows no other of these names, and their functions
// are still where they were.
static bool isPluginsOwn(const char* name) { return !strncmp(name, "MySU", 4); }
extern "C" Class objc_getClass(const char* name) {
  static auto* original = reinterpret_cast<Class (*)(const char*)>(dlsym(RTLD_NEXT, __func__));
  // The runtime itself asks here, too, and needs the class.
  Dl_info caller;
  bool hidden = isPluginsOwn(name) && dladdr(__builtin_return_address(0), &caller) &&
                pluginPath == caller.dli_fname;
  return hidden ? Nil : original(name);
}
extern "C" Class objc_allocateClassPair(Class superclass, const char* name, size_t extraBytes) {
  static auto* original =
      reinterpret_cast<Class (*)(Class, const char*, size_t)>(dlsym(RTLD_NEXT, __func__));
  if (isPluginsOwn(name))
    if (Class made = objc_lookUpClass(name)) return made;
  return original(superclass, name, extraBytes);
}

namespace fuzz {

namespace {

const companion_api* companion;
void (*counters)(char** start, char** stop);

// ---- The plug-in's writable memory

struct Part {
  uintptr_t start, end;
  std::vector<uint32_t> kept;
};
std::vector<Part> parts;

// The compiler's and the sanitizer's own ways to copy memory refuse the red zones around globals.
__attribute__((no_sanitize("address"), no_builtin)) void
copyWords(uint32_t* to, const uint32_t* from, size_t count) {
  for (size_t i = 0; i < count; ++i) to[i] = from[i];
}

void addPart(uintptr_t start, uintptr_t end) {
  start = (start + 3) & ~uintptr_t{3};
  end &= ~uintptr_t{3};
  if (start < end) parts.push_back({start, end, std::vector<uint32_t>((end - start) / 4)});
}

// All that is writable for good, but the coverage counters, which are the fuzzer's.
int findParts(dl_phdr_info* info, size_t, void*) {
  if (pluginPath != info->dlpi_name) return 0;
  uintptr_t sealedStart = 0, sealedEnd = 0;
  for (int i = 0; i < info->dlpi_phnum; ++i) {
    const auto& header = info->dlpi_phdr[i];
    if (header.p_type != PT_GNU_RELRO) continue;
    sealedStart = info->dlpi_addr + header.p_vaddr;
    sealedEnd = sealedStart + header.p_memsz;
  }
  char *first, *last;
  counters(&first, &last);
  auto countersStart = reinterpret_cast<uintptr_t>(first);
  auto countersEnd = reinterpret_cast<uintptr_t>(last);
  for (int i = 0; i < info->dlpi_phnum; ++i) {
    const auto& header = info->dlpi_phdr[i];
    if (header.p_type != PT_LOAD || !(header.p_flags & PF_W)) continue;
    uintptr_t start = info->dlpi_addr + header.p_vaddr, end = start + header.p_memsz;
    if (start >= sealedStart && start < sealedEnd) start = sealedEnd;
    if (countersStart >= start && countersEnd <= end) {
      addPart(start, countersStart);
      addPart(countersEnd, end);
    } else {
      addPart(start, end);
    }
  }
  return 1;
}

int lines;
bool cocoaLosses;

// ---- What came of an input, for those that come again

bool comparing() {
  static bool asked = getenv("FUZZ_COMPARE") != nullptr;
  return asked;
}
std::map<std::string, std::string> outcomes; // by input
std::string outcome;

// Addresses are no outcome.
void note(const std::string& line) {
  static const std::regex address("0x[0-9a-f]+|-?[0-9]{8,}");
  outcome += std::regex_replace(line, address, "ADDRESS");
}

void takeOperations() {
  for (const host::LogEntry& entry : host::stopLog()) note(entry.text() + "\n");
}

void watch() {
  host::setWatching(comparing());
  if (comparing()) host::startLog();
}

void compareOutcome(const uint8_t* data, size_t size) {
  takeOperations();
  std::string input(reinterpret_cast<const char*>(data), size);
  auto [place, first] = outcomes.emplace(input, outcome);
  if (first || place->second == outcome) return;
  size_t at = 0;
  while (at < outcome.size() && outcome[at] == place->second[at]) ++at;
  size_t start = at ? outcome.rfind('\n', at - 1) + 1 : 0;
  auto line = [&](const std::string& text) {
    return text.substr(start, text.find('\n', at) - start);
  };
  fail("an input that came again did this:\n" + line(outcome) + "\ninstead of\n" +
       line(place->second));
}

void countLine(NSString* line) {
  ++lines;
  // Without the time and the process.
  std::string text = [line UTF8String];
  if (comparing()) note("logged" + text.substr(text.find("] ") + 1));
  static bool shown = getenv("FUZZ_LOG") != nullptr;
  if (shown) fprintf(stderr, "%s", [line UTF8String]);
}

// ---- Cocoa's accounts

int live(const char* name) {
  Class type = objc_lookUpClass(name);
  return type ? GSDebugAllocationCount(type) : 0;
}

// What the plug-in handles. Others come and go with GNUstep's own caches.
const char* const counted[] = {"GSArray",
                               "GSMutableArray",
                               "GSDictionary",
                               "GSMutableDictionary",
                               "GSSet",
                               "GSMutableSet",
                               "GSCInlineString",
                               "GSUInlineString",
                               "GSCBufferString",
                               "GSUnicodeBufferString",
                               "GSMutableString",
                               "TestbedUnitString",
                               "NSGDate",
                               "NSCalendarDate",
                               "NSDataMalloc",
                               "NSDataStatic",
                               "NSURL",
                               "NSIntNumber",
                               "NSLongLongNumber",
                               "NSFloatNumber",
                               "NSDoubleNumber",
                               "NSException",
                               "MySUUpdaterDelegateInformalProtocol",
                               "MySUVersionComparison",
                               "SUAppcast",
                               "SUAppcastItem",
                               "SUUpdater"};

std::vector<int> countAll() {
  std::vector<int> numbers;
  for (const char* name : counted) numbers.push_back(live(name));
  return numbers;
}

void runOnce(const uint8_t* data, size_t size, void (*body)(Input&)) {
  recall();
  lines = 0;
  cocoaLosses = false;
  outcome.clear();
  watch();
  {
    host::Pool pool;
    Input input(data, size);
    body(input);
  }
  if (comparing()) compareOutcome(data, size);
  require([AnyString alive] == 0, "a string was lost");
  if (auto raised = host::takeException())
    fail("an exception is pending in the host: " + raised->className + ": " +
         raised->message.value_or("(no message)"));
  if (host::ledger() != host::Ledger{}) {
    fprintf(stderr, "alive in the host after this input:\n%s\n", host::leakReport().c_str());
    fail("host objects were lost; FUZZ_STACKS=1 shows where they were made");
  }
  if (companion) {
    require(companion->count(COMPANION_REGISTERED) == 0, "an entry stays in the registry");
    require(companion->count(COMPANION_LIVE_WRAPPERS) == 0, "a wrapper instance was lost");
    require(companion->count(COMPANION_LIVE_BOXES) == 0, "a box was lost");
  }
}

// A class of which every one of four more runs leaves something behind.
void checkCocoa(const uint8_t* data, size_t size, void (*body)(Input&),
                const std::vector<int>& before) {
  if (cocoaLosses) return;
  std::vector<int> last = countAll();
  std::vector<bool> grows;
  for (size_t i = 0; i < last.size(); ++i) grows.push_back(last[i] > before[i]);
  for (int turn = 0; turn < 4; ++turn) {
    if (std::find(grows.begin(), grows.end(), true) == grows.end()) return;
    runOnce(data, size, body);
    std::vector<int> now = countAll();
    for (size_t i = 0; i < now.size(); ++i) grows[i] = grows[i] && now[i] > last[i];
    last = now;
  }
  for (size_t i = 0; i < grows.size(); ++i)
    if (grows[i])
      fail(std::string("each time an object of this Cocoa class is lost: ") + counted[i]);
}

} // namespace

const char* hostName() {
  const char* name = getenv("SPARKLEKVZ_HOST");
  return name ? name : "2013.03";
}

void* open(const char* name) {
  // Nothing goes to the user's own defaults.
  setenv("HOME", "/nonexistent", 1);
  _NSLog_printf_handler = countLine;
  GSDebugAllocationActive(YES);
  startHost(name);
  const char* other = getenv("FUZZ_PLUGIN");
  pluginPath = other ? other : PLUGIN_PATH;
  void* library = dlopen(pluginPath.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!library) fail(std::string("the plug-in cannot be loaded: ") + dlerror());
  counters = reinterpret_cast<decltype(counters)>(dlsym(library, "fuzz_counters"));
  return dlsym(library, "REALPluginMain");
}

void startHost(const char* name) {
  if (comparing()) takeOperations();
  host::start(name);
  watch();
  host::setStacks(getenv("FUZZ_STACKS") != nullptr);
}

void enter(void* entry, void* (*resolver)(const char* name)) {
  auto word = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(resolver));
  crossing_enter(entry, &word, 1);
}

void expectCocoaLosses() { cocoaLosses = true; }

void start(Options options) {
  void* entry = open(hostName());
  if (options.companion) {
    companion = companion_open(COMPANION_PATH);
    host::loadPlugin(COMPANION_PATH);
  }
  host::startPlugin(entry, "SparkleKVZ");
}

int logLines() { return lines; }

void remember() {
  if (parts.empty()) dl_iterate_phdr(findParts, nullptr);
  require(!parts.empty(), "the plug-in's writable memory was not found");
  for (Part& part : parts)
    copyWords(part.kept.data(), reinterpret_cast<uint32_t*>(part.start), part.kept.size());
}

void recall() {
  for (Part& part : parts)
    copyWords(reinterpret_cast<uint32_t*>(part.start), part.kept.data(), part.kept.size());
}

void fail(const std::string& what) {
  fprintf(stderr, "fuzz: %s\n", what.c_str());
  abort();
}

int execute(const uint8_t* data, size_t size, void (*body)(Input&)) {
  host::Pool pool;
  std::vector<int> before = countAll();
  runOnce(data, size, body);
  checkCocoa(data, size, body, before);
  return 0;
}

host::Object instanceOf(std::string_view className, id object) {
  host::Object instance = host::create(className);
  host::set(instance, "Handle",
            static_cast<uint32_t>(reinterpret_cast<uintptr_t>([object retain])));
  return instance;
}

namespace {

// Replacing a method is dear, so it is done once: where nothing is played, the bundle answers.
const std::map<std::string, Class>* played;
Class (*classNamedByBundle)(id, SEL, NSString*);
Class classNamed(id self, SEL selector, NSString* name) {
  if (!played) return classNamedByBundle(self, selector, name);
  auto place = played->find([name UTF8String]);
  return place == played->end() ? nil : place->second;
}

} // namespace

bool loadFrameworkFolder(const std::string& name) {
  return host::callShared("SUUpdaterKVZ", "LoadFramework(path as folderitem) as boolean",
                          host::folderItem(FRAMEWORKS "/" + name + ".framework"))
      .as<bool>();
}

bool loadFramework(Class updater, Class appcast, Class item) {
  if (!classNamedByBundle)
    classNamedByBundle = reinterpret_cast<decltype(classNamedByBundle)>(
        method_setImplementation(class_getInstanceMethod([NSBundle class], @selector(classNamed:)),
                                 reinterpret_cast<IMP>(classNamed)));
  std::map<std::string, Class> framework{
      {"SUUpdater", updater}, {"SUAppcast", appcast}, {"SUAppcastItem", item}};
  played = &framework;
  bool loaded = loadFrameworkFolder("WithoutClasses");
  played = nullptr;
  return loaded;
}

} // namespace fuzz

static int anyStrings;

@implementation AnyString
+ (instancetype)stringWithUnits:(std::u16string)given {
  AnyString* string = [[self alloc] init];
  string->units = new std::u16string(std::move(given));
  ++anyStrings;
  return [string autorelease];
}
+ (int)alive {
  return anyStrings;
}
- (void)dealloc {
  delete units;
  --anyStrings;
  [super dealloc];
}
- (NSUInteger)length {
  return units->size();
}
- (unichar)characterAtIndex:(NSUInteger)index {
  return units->at(index);
}
- (void)getCharacters:(unichar*)buffer range:(NSRange)range {
  memcpy(buffer, units->data() + range.location, range.length * sizeof *buffer);
}
- (id)copyWithZone:(NSZone*)zone {
  (void)zone;
  return [self retain];
}
@end
