// What the product's functions promise and no host program can ask for: arguments that no member
// passes, hosts and systems that refuse. The test is the host; each test is a process of its own.
#include "appcast/appcast.h"
#include "convert/cf_types.h"
#include "convert/dates.h"
#include "convert/dictionaries.h"
#include "convert/files.h"
#include "convert/strings.h"
#include "convert/variants.h"
#include "plugin/failure.h"
#include "plugin/registration.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <malloc.h>
#include <map>
#include <string>
#include <vector>

using testing::ElementsAre;
using testing::IsEmpty;

// Of testbed/cocoa/faults.h, which goes with another declaration of Cocoa than the product's.
extern "C" {
void faults_start(int onThisThreadOnly);
void faults_stop();
void faults_fail_call(const char* name, unsigned long nth);
unsigned long faults_calls(const char* name);
}

// Before the runtime's and Core Foundation's own, since a program's symbols come first.
namespace {
bool runtimeRefuses;
unsigned registeredPairs;
CFIndex claimedLength; // of any string; 0 is the truth
bool everyFileIsARoot; // of a volume, with a parent of sevens
FSRef parentAskedFor;
} // namespace

extern "C" {
Class objc_allocateClassPair(Class superclass, const char* name, std::size_t extraBytes) {
  if (runtimeRefuses) return nullptr;
  auto* next = reinterpret_cast<decltype(&objc_allocateClassPair)>(
      dlsym(RTLD_NEXT, "objc_allocateClassPair"));
  return next(superclass, name, extraBytes);
}
void objc_registerClassPair(Class type) {
  ++registeredPairs;
  auto* next = reinterpret_cast<decltype(&objc_registerClassPair)>(
      dlsym(RTLD_NEXT, "objc_registerClassPair"));
  next(type);
}
CFIndex CFStringGetLength(CFStringRef string) {
  if (claimedLength) return claimedLength;
  auto* next =
      reinterpret_cast<decltype(&CFStringGetLength)>(dlsym(RTLD_NEXT, "CFStringGetLength"));
  return next(string);
}
OSErr FSGetCatalogInfo(const FSRef* ref, FSCatalogInfoBitmap which, FSCatalogInfo* info,
                       HFSUniStr255* name, FSSpec* spec, FSRef* parent) {
  auto* next = reinterpret_cast<decltype(&FSGetCatalogInfo)>(dlsym(RTLD_NEXT, "FSGetCatalogInfo"));
  if (everyFileIsARoot && !info && !name && !spec) parentAskedFor = *ref;
  OSErr result = next(ref, which, info, name, spec, parent);
  if (everyFileIsARoot && parent) {
    info->nodeID = 2;
    memset(parent, 7, sizeof *parent);
  }
  return result;
}
}

namespace {

// ---- A host of a few operations

struct Text {
  std::string bytes;
  std::uint32_t encoding;
  int references = 1;
};
REALstringStruct* handle(Text& text) { return reinterpret_cast<REALstringStruct*>(&text); }
Text& text(REALstringStruct* string) { return *reinterpret_cast<Text*>(string); }

std::map<std::string, void*> offered;
std::vector<std::string> log;

void* resolve(const char* name) {
  auto found = offered.find(name);
  return found == offered.end() ? nullptr : found->second;
}

template <class Function> void offer(const char* name, Function function) {
  offered[name] = reinterpret_cast<void*>(function);
}

Text built{"", 0, 0};
Text inOther{"other", 7};
bool showsBytes = true, converts = true;
int byteCount = -2; // what LenB says; the truth below -1

void offerStrings() {
  offer(
      "REALBuildString", +[](const char* bytes, int count) {
        built = {std::string(bytes, static_cast<std::size_t>(count)), kAnyEncoding, 1};
        return handle(built);
      });
  offer(
      "REALSetStringEncoding",
      +[](REALstringStruct* string, std::uint32_t encoding) { text(string).encoding = encoding; });
  offer(
      "REALGetStringEncoding", +[](REALstringStruct* string) { return text(string).encoding; });
  offer(
      "REALUnlockString", +[](REALstringStruct* string) { --text(string).references; });
}

void offerCopies() {
  offerStrings();
  offer(
      "StringGetCString", +[](REALstringStruct* string) -> const char* {
        return showsBytes ? text(string).bytes.c_str() : nullptr;
      });
  offer(
      "REALLoadGlobalMethod", +[](const char* declaration, void*) -> void* {
        if (strcmp(declaration, "LenB( s as string ) as integer") != 0) return nullptr;
        return reinterpret_cast<void*>(+[](REALstringStruct* string) {
          return byteCount < -1 ? static_cast<int>(text(string).bytes.size()) : byteCount;
        });
      });
  offer(
      "REALConvertString", +[](REALstringStruct*, std::uint32_t encoding) {
        inOther.encoding = encoding;
        inOther.references = 1;
        return converts ? handle(inOther) : nullptr;
      });
}

std::string raisedClass; // of the exception that is pending
std::string knownClass;  // the one besides RuntimeException that the host can make
REALobjectStruct* anObject() { return reinterpret_cast<REALobjectStruct*>(&raisedClass); }

void offerExceptions() {
  offerStrings();
  offer(
      "PluginNewInstance", +[](const char* name) -> REALobjectStruct* {
        log.push_back(std::string("new ") + name);
        return name == knownClass ? anObject() : nullptr;
      });
  offer(
      "REALSetPropValueString", +[](REALobjectStruct*, const char* name, REALstringStruct* value) {
        log.push_back(std::string(name) + " = " + (value ? text(value).bytes : "nil"));
      });
  offer(
      "REALSetPropValueInt", +[](REALobjectStruct*, const char* name, std::int32_t value) {
        log.push_back(std::string(name) + " = " + std::to_string(value));
      });
  offer(
      "RuntimeRaiseException", +[](REALobjectStruct*) { log.push_back("raise"); });
  offer(
      "REALUnlockObject", +[](REALobjectStruct*) { log.push_back("unlock"); });
}

class WhiteBox : public testing::Test {
protected:
  WhiteBox() { gResolver = resolve; }
};

// ---- Looking up

TEST_F(WhiteBox, ALookUpThatFindsNothingTakesNothingFromAnotherThread) {
  static int value = 1;
  int* slot = nullptr;
  EXPECT_EQ(found(slot,
                  [&]() -> int* {
                    slot = &value; // another thread found it meanwhile
                    return nullptr;
                  }),
            nullptr);
  EXPECT_EQ(slot, &value);
}

// ---- REALGetStringData

class StringData : public WhiteBox {
protected:
  StringData() { offerCopies(); }
  // The bytes and the four behind them; "false" when there are none.
  std::string get(REALstringStruct* string, std::uint32_t encoding, std::uint32_t announced = 0) {
    data = {nullptr, announced, 0};
    if (!REALGetStringData(string, encoding, &data)) return "false";
    EXPECT_EQ(data.encoding, encoding);
    if (!offered.count("PluginGetStringData"))
      EXPECT_GE(malloc_usable_size(data.data), std::max(announced, data.length) + 4);
    std::string all(data.data, data.length + 4);
    disposeStringData(&data);
    return all;
  }
  static std::string ended(const std::string& bytes) { return bytes + std::string(4, '\0'); }

  Text string{std::string("a\0b", 3), kCFStringEncodingUTF8};
  REALstringData data{};
};

TEST_F(StringData, InTheEncodingThatTheStringHasIsCopied) {
  EXPECT_EQ(get(handle(string), kCFStringEncodingUTF8), ended(string.bytes));
  EXPECT_EQ(string.references, 1);
}

TEST_F(StringData, InAnotherEncodingIsConvertedAndTheConvertedStringGivenBack) {
  EXPECT_EQ(get(handle(string), kCFStringEncodingASCII), ended("other"));
  EXPECT_EQ(inOther.encoding, kCFStringEncodingASCII);
  EXPECT_EQ(inOther.references, 0);
  EXPECT_EQ(string.references, 1);
}

TEST_F(StringData, ThatCannotBeConvertedIsNone) {
  converts = false;
  EXPECT_EQ(get(handle(string), kCFStringEncodingASCII), "false");
  converts = true;
  showsBytes = false;
  EXPECT_EQ(get(handle(string), kCFStringEncodingASCII), "false");
  EXPECT_EQ(inOther.references, 0);
}

TEST_F(StringData, OfAnotherEncodingNeedsTheConversion) {
  offered.erase("REALConvertString");
  EXPECT_EQ(get(handle(string), kCFStringEncodingASCII), "false");
  EXPECT_EQ(get(handle(string), kCFStringEncodingUTF8), ended(string.bytes));
}

TEST_F(StringData, OfAHostThatTellsNoEncodingIsMacRoman) {
  offered.erase("REALGetStringEncoding");
  EXPECT_EQ(get(handle(string), kCFStringEncodingMacRoman), ended(string.bytes));
  EXPECT_EQ(get(handle(string), kCFStringEncodingUTF8), ended("other"));
}

TEST_F(StringData, OfNoStringIsNone) {
  EXPECT_EQ(get(nullptr, kAnyEncoding), "false");
  EXPECT_EQ(get(nullptr, kCFStringEncodingUTF8), "false");
}

TEST_F(StringData, NeedsBothOperations) {
  auto withAndWithout = [&](const char* operation) {
    void* address = offered[operation];
    offered.erase(operation);
    EXPECT_EQ(get(handle(string), kAnyEncoding), "false") << operation;
    offered[operation] = address;
  };
  withAndWithout("StringGetCString");
  withAndWithout("REALLoadGlobalMethod");
  EXPECT_EQ(get(handle(string), kAnyEncoding), ended(string.bytes));
}

TEST_F(StringData, AsItIsHasRoomForWhatWasAnnouncedAndForTheStringAtLeast) {
  string.bytes = std::string(1000, 'x');
  for (std::uint32_t announced : {0u, 1u, 1000u, 5000u}) {
    EXPECT_EQ(get(handle(string), kAnyEncoding, announced), ended(string.bytes)) << announced;
    EXPECT_EQ(data.length, 1000u);
  }
  // What has no number of bytes, or none with its end.
  for (std::uint32_t announced : {0xFFFFFFFFu, 0x80000000u, 0x7FFFFFFFu - 3})
    EXPECT_EQ(get(handle(string), kAnyEncoding, announced), "false") << announced;
}

TEST_F(StringData, OfAStringWhoseBytesAreNotShownIsNoneUnlessItIsEmpty) {
  showsBytes = false;
  EXPECT_EQ(get(handle(string), kAnyEncoding), "false");
  string.bytes.clear();
  EXPECT_EQ(get(handle(string), kAnyEncoding), ended(""));
}

TEST_F(StringData, OfAStringShorterThanNothingIsEmpty) {
  byteCount = -1;
  EXPECT_EQ(get(handle(string), kAnyEncoding), ended(""));
}

TEST_F(StringData, WithoutMemoryIsNone) {
  get(handle(string), kAnyEncoding);
  faults_start(1);
  faults_fail_call("malloc", 1);
  bool got = REALGetStringData(handle(string), kAnyEncoding, &data);
  faults_stop();
  EXPECT_FALSE(got);
}

TEST_F(StringData, ThatIsToHaveMoreRoomThanThereIsIsNone) {
  get(handle(string), kAnyEncoding);
  for (std::uint32_t tooMuch : {0u, 1u}) {
    data.length = INT32_MAX - 4 + tooMuch;
    faults_start(1);
    faults_fail_call("malloc", 1);
    bool got = REALGetStringData(handle(string), kAnyEncoding, &data);
    faults_stop();
    EXPECT_FALSE(got);
    EXPECT_EQ(faults_calls("malloc"), 1 - tooMuch);
  }
}

TEST_F(StringData, IsTheHostsWhereItOffersThem) {
  offer(
      "PluginGetStringData",
      +[](REALstringStruct*, std::uint32_t encoding, REALstringData* data) -> RBBoolean {
        static char bytes[] = "the host's\0\0\0";
        *data = {bytes, 10, encoding};
        return encoding == kAnyEncoding ? 0x80 : 0;
      });
  static unsigned disposed;
  offer(
      "PluginDisposeStringData", +[](REALstringData*) { ++disposed; });
  EXPECT_EQ(get(handle(string), kAnyEncoding), ended("the host's"));
  EXPECT_EQ(disposed, 1u);
  EXPECT_EQ(get(handle(string), kCFStringEncodingUTF8), "false");
  EXPECT_EQ(disposed, 1u);
}

// ---- RaiseException

class Raise : public WhiteBox {
protected:
  Raise() { offerExceptions(); }
};

TEST_F(Raise, WithoutAMessageSetsNone) {
  knownClass = "NilObjectException";
  for (const char* message : {static_cast<const char*>(nullptr), ""}) {
    log.clear();
    RaiseException("NilObjectException", message, 5);
    EXPECT_THAT(log, ElementsAre("new NilObjectException", "Message = nil", "ErrorNumber = 0",
                                 "raise", "unlock"));
    EXPECT_EQ(built.references, 0);
  }
}

TEST_F(Raise, MarksItsMessageAsASCIIAndGivesItBack) {
  knownClass = "NilObjectException";
  RaiseException("NilObjectException", "a message", 5);
  EXPECT_THAT(log, ElementsAre("new NilObjectException", "Message = a message", "ErrorNumber = 0",
                               "raise", "unlock"));
  EXPECT_EQ(built.encoding, 0x0600u);
  EXPECT_EQ(built.references, 0);
}

TEST_F(Raise, OfAClassThatTheHostDoesNotKnowIsOfTheGeneralOne) {
  knownClass = "RuntimeException";
  RaiseException("NoSuchException", "a message", 5);
  EXPECT_THAT(log, ElementsAre("new NoSuchException", "new RuntimeException", "Message = a message",
                               "ErrorNumber = 0", "raise", "unlock"));
}

TEST_F(Raise, WithoutAnyClassGivesTheMessageBack) {
  RaiseException("NoSuchException", "a message", 5);
  EXPECT_THAT(log, ElementsAre("new NoSuchException", "new RuntimeException"));
  EXPECT_EQ(built.references, 0);
}

// ---- What a callback logs

TEST_F(WhiteBox, OfSeveralObjectsThatAreNoExceptionsTheFirstIsThrownOn) {
  auto object = [] { return send<id>(send<id>("NSObject"_class, "alloc"_sel), "init"_sel); };
  const id thrown[] = {nullptr, object(), nullptr, object()};
  EXPECT_EQ(attempt([&] { logExceptions(thrown, std::size(thrown)); }), thrown[1]);
  EXPECT_EQ(attempt([&] { logExceptions(thrown, 1); }), nullptr);
  for (id each : thrown) send<void>(each, "release"_sel);
}

// ---- Registration

TEST_F(WhiteBox, ClassesStandInTheNewestLayoutUntilTheyAreRegistered) {
  for (const REALclassDefinition* type : {&SUVersionComparisonDefinition, &SUAppcastItemDefinition,
                                          &SUUpdaterDefinition, &SUAppcastDefinition})
    EXPECT_EQ(type->version, 12u) << type->name;
}

TEST_F(WhiteBox, ForAnOldHostAClassBindsNothingAndItsSharedPropertiesAreShortened) {
  CurrentREALControlVersion = 9;
  static REALclassDefinition* registered;
  offer(
      "PluginRegisterClass", +[](REALclassDefinition* type) { registered = type; });
  REALproperty shared{nullptr, "shared", "Integer", kPropertyFlags, -1,      -1,
                      0,       0,        0,         nullptr,        nullptr, 0};
  REALclassDefinition type{.version = kLayoutVersion,
                           .name = "Shared",
                           .bindDescriptions = &shared,
                           .bindDescriptionCount = 1,
                           .sharedProperties = &shared,
                           .sharedPropertyCount = 1};
  MyREALRegisterClass(&type);
  ASSERT_EQ(registered, &type);
  EXPECT_EQ(type.bindDescriptions, nullptr);
  EXPECT_EQ(type.bindDescriptionCount, 0u);
  ASSERT_NE(type.sharedProperties, &shared);
  EXPECT_STREQ(type.sharedProperties->name, "shared");
  EXPECT_EQ(type.sharedPropertyCount, 1u);
  free(type.sharedProperties);
}

TEST_F(WhiteBox, PropertiesAreShortenedToTenWordsEach) {
  REALproperty properties[2] = {};
  auto* words = reinterpret_cast<std::uint32_t*>(properties);
  for (unsigned i = 0; i < 24; ++i) words[i] = i + 1;
  auto* copy = reinterpret_cast<std::uint32_t*>(FixProperties(properties, 2));
  ASSERT_TRUE(copy);
  for (unsigned i = 0; i < 20; ++i) EXPECT_EQ(copy[i], i % 10 + 1 + 12 * (i / 10)) << i;
  free(copy);
}

TEST_F(WhiteBox, NoPropertiesAreNull) {
  REALproperty property{};
  EXPECT_EQ(FixProperties(nullptr, 1), nullptr);
  EXPECT_EQ(FixProperties(&property, 0), nullptr);
  faults_start(1);
  EXPECT_EQ(FixProperties(&property, 53687092), nullptr) << "their size has no number";
  EXPECT_EQ(FixProperties(&property, -1), nullptr);
  faults_stop();
  EXPECT_EQ(faults_calls("calloc"), 0ul);
}

TEST_F(WhiteBox, AnEventOfAFailedRegistrationHasNoWordAndNoHandler) {
  CurrentREALControlVersion = 9;
  REALevent event{"event", nullptr, nullptr, 0};
  EXPECT_EQ(registeredEvent(event), nullptr);
  std::uint32_t word = 7,
                copy[2] = {0, static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(&word))};
  event.forSystemUse = copy;
  EXPECT_EQ(registeredEvent(event), &word);
  CurrentREALControlVersion = 10;
  EXPECT_EQ(registeredEvent(event), copy);
  EXPECT_EQ(eventHandler<void*>(nullptr, event), nullptr);
}

// ---- Nothing in, nothing out

TEST_F(WhiteBox, NothingGivesNothing) {
  bool ended = false;
  Nesting nesting{0, &ended};
  EXPECT_EQ(RBString2CFString(nullptr), nullptr);
  EXPECT_EQ(CFString2RBString(nullptr), nullptr);
  EXPECT_EQ(CFString2RBString(asString(""_ns)), nullptr);
  EXPECT_EQ(autoreleasedString(nullptr), nullptr);
  EXPECT_EQ(autoreleasedURL(nullptr), nullptr);
  EXPECT_EQ(CreateCFURLfromFolderItem(nullptr), nullptr);
  EXPECT_EQ(CFURL2RBFile(nullptr), nullptr);
  EXPECT_EQ(autoreleasedPath(nullptr), nullptr);
  EXPECT_EQ(NSDateRB(nullptr), nullptr);
  EXPECT_EQ(NSDataRB(nullptr), nullptr);
  DateFields fields;
  EXPECT_FALSE(readDateFields(nullptr, &fields));
  EXPECT_EQ(NSDictionaryRB(nullptr), nullptr);
  EXPECT_EQ(NewNSDictionary(nullptr), nullptr);
  EXPECT_EQ(NewVariantFromNSObject(nullptr, nesting), nullptr);
  EXPECT_EQ(GetVariantAsNSObject(nullptr, nesting), nullptr);
  EXPECT_EQ(SUAppcastRB(nullptr), nullptr);
  EXPECT_EQ(SUAppcastItemRB(nullptr), nullptr);
  EXPECT_FALSE(ended);
}

// ---- A system that refuses

TEST_F(WhiteBox, AClassThatTheRuntimeRefusesIsNotMade) {
  runtimeRefuses = true;
  makeCocoaClass(MySUVersionComparison);
  EXPECT_EQ(MySUVersionComparison.type, nullptr);
  EXPECT_EQ(registeredPairs, 0u);
  adoptProtocol(MySUVersionComparison);
  runtimeRefuses = false;
  makeCocoaClass(MySUVersionComparison);
  EXPECT_NE(MySUVersionComparison.type, nullptr);
}

TEST_F(WhiteBox, AClassHasAsManyVariablesAndMethodsAsAreCounted) {
  CocoaVariable variables[] = {{"first", "@", 0}, {"second", "@", 99}};
  const CocoaMethod methods[] = {
      {"copyWithZone:", reinterpret_cast<IMP>(retainInsteadOfCopy), "@12@0:4^{_NSZone=}8"},
      {"unheardOf", nullptr, "v8@0:4"}};
  CocoaClass counted{"Counted", variables, 1, methods, 1, nullptr, nullptr, nullptr};
  makeCocoaClass(counted);
  ASSERT_TRUE(counted.type);
  EXPECT_EQ(variables[0].offset, static_cast<std::ptrdiff_t>(sizeof(id)));
  EXPECT_EQ(variables[1].offset, 99);
  EXPECT_FALSE(class_getInstanceVariable(counted.type, "second"));
  id object = send<id>(send<id>(reinterpret_cast<id>(counted.type), "alloc"_sel), "init"_sel);
  EXPECT_TRUE(send<BOOL>(object, "respondsToSelector:"_sel, "copyWithZone:"_sel));
  EXPECT_FALSE(send<BOOL>(object, "respondsToSelector:"_sel, sel_registerName("unheardOf")));
  send<void>(object, "release"_sel);
}

TEST_F(WhiteBox, ATypeThatTheSystemLacksIsPassedOver) {
  auto types = {"CFURLGetTypeID", "CTTypesetterGetTypeID"}; // before and behind the renamed one
  for (const char* name : types) {
    auto type = reinterpret_cast<CFTypeID (*)()>(dlsym(RTLD_DEFAULT, name));
    ASSERT_TRUE(type) << name;
    const CFTypeRule* rule = cfTypeRule(type());
    ASSERT_TRUE(rule) << name;
    EXPECT_EQ(rule->type, type);
  }
  EXPECT_EQ(cfTypeRule(~CFTypeID{}), nullptr);
}

TEST_F(WhiteBox, ANameShorterThanNothingIsEmpty) {
  static int leafLength = -1;
  offer(
      "REALFolderItemFromParentFSRef",
      +[](const FSRef*, const HFSUniStr255* name) -> REALfolderItemStruct* {
        leafLength = name->length;
        return reinterpret_cast<REALfolderItemStruct*>(&leafLength);
      });
  id pool = send<id>(send<id>("NSAutoreleasePool"_class, "alloc"_sel), "init"_sel);
  id url = send<id>("NSURL"_class, "fileURLWithPath:"_sel, "/no file of this name"_ns);
  EXPECT_TRUE(CFURL2RBFile(asURL(url)));
  EXPECT_EQ(leafLength, 20);
  claimedLength = -3;
  EXPECT_TRUE(CFURL2RBFile(asURL(url)));
  claimedLength = 0;
  EXPECT_EQ(leafLength, 0);
  send<void>(pool, "drain"_sel);
}

TEST_F(WhiteBox, TheParentOfAVolumesRootIsNoFileAtAll) {
  id pool = send<id>(send<id>("NSAutoreleasePool"_class, "alloc"_sel), "init"_sel);
  everyFileIsARoot = true;
  memset(&parentAskedFor, 7, sizeof parentAskedFor);
  CFURL2RBFile(asURL(send<id>("NSURL"_class, "fileURLWithPath:"_sel, "/"_ns)));
  everyFileIsARoot = false;
  EXPECT_THAT(parentAskedFor.hidden, testing::Each(0));
  send<void>(pool, "drain"_sel);
}

// Whether memory was asked for.
bool takesMemory(CFIndex length) {
  claimedLength = length;
  faults_start(1);
  faults_fail_call("malloc", 1);
  EXPECT_EQ(CFString2RBString(asString("text"_ns)), nullptr);
  faults_stop();
  claimedLength = 0;
  return faults_calls("malloc") > 0;
}

TEST_F(WhiteBox, ATextWhoseBytesHaveNoNumberIsNone) {
  takesMemory(100); // looks everything up
  EXPECT_TRUE(takesMemory(INT32_MAX / 6));
  EXPECT_FALSE(takesMemory(INT32_MAX / 6 + 1));
}

[[gnu::noinline]] void dirtyTheStack() {
  volatile char bytes[8192];
  for (volatile char& byte : bytes) byte = 0x55;
}

TEST_F(WhiteBox, AHostThatLeavesANameAloneLeavesItEmpty) {
  static bool empty;
  offer(
      "REALFSRefFromFolderItem",
      +[](REALfolderItemStruct*, FSRef*, HFSUniStr255* name) -> RBBoolean {
        if (!name) return 0;
        auto* bytes = reinterpret_cast<const char*>(name);
        empty = std::count(bytes, bytes + sizeof *name, 0) == sizeof *name;
        return 0;
      });
  Text item{"", 0};
  dirtyTheStack();
  CreateCFURLfromFolderItem(reinterpret_cast<REALfolderItemStruct*>(&item));
  EXPECT_TRUE(empty);
}

} // namespace
