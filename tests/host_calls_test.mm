// Every operation of the host that the plug-in calls: asked for by name at its first use, never
// again once it was found, at each use while the host lacks it, and then skipped.

#include "plugin_objects.h"
#include "session.h"

#include "testbed/cocoa/numbers.h"

#include <gmock/gmock.h>

#import <Foundation/Foundation.h>

#include <functional>

@interface Answers : NSObject {
@public
  NSDictionary* properties;
  NSArray* items;
  NSString* userAgent;
}
@end

@implementation Answers
- (NSString*)title {
  return @"A title";
}
- (NSDate*)date {
  return [NSCalendarDate dateWithYear:2021
                                month:3
                                  day:7
                                 hour:9
                               minute:5
                               second:30
                             timeZone:[NSTimeZone localTimeZone]];
}
- (NSDictionary*)propertiesDictionary {
  return properties;
}
- (NSArray*)items {
  return items;
}
- (id)valueForKey:(NSString*)key {
  (void)key;
  return [NSData dataWithBytes:"abc" length:3];
}
- (void)setUserAgentString:(NSString*)text {
  [text retain];
  [userAgent release];
  userAgent = text;
}
- (void)dealloc {
  [userAgent release];
  [super dealloc];
}
@end

namespace {

int32_t handleOf(id object) { return static_cast<int32_t>(reinterpret_cast<intptr_t>(object)); }

std::string print(id object) {
  if (!object) return "nothing";
  if (object == [NSNull null]) return "null";
  if ([object isKindOfClass:[NSCalendarDate class]])
    object = [object descriptionWithCalendarFormat:@"%Y-%m-%d %H:%M:%S"];
  return [[object description] UTF8String];
}

// An instance of each class around a Cocoa object that answers everything. Making it calls no
// operation of the host.
class Scene {
public:
  Scene() {
    host::subclass("Comparing", "SUVersionComparisonKVZ",
                   {{"compareVersion(VersionA as string, VersionB as string) as integer",
                     [this](host::Event&) {
                       duringEvent_ = host::referenceCount(comparison_);
                       return 7;
                     }}});
    host::subclass("Feeding", "SUUpdaterKVZ",
                   {{"feedParametersForUpdater(sendingProfile as boolean) as dictionary()",
                     [this](host::Event&) { return host::Value(parameters_); }}});
    answers_ = [Answers new];
    item_ = wrapping("SUAppcastItemKVZ");
    appcast_ = wrapping("SUAppcastKVZ");
    updater_ = host::construct("Feeding", "Constructor");
    comparison_ = host::construct("Comparing", "Constructor");
  }
  ~Scene() {
    host::call(comparison_, "Destructor");
    [answers_ release];
  }
  Scene(const Scene&) = delete;
  Scene& operator=(const Scene&) = delete;

  // What the host program sees.
  std::string title() {
    auto text = host::get<host::String>(item_, "title as string");
    return text ? host::bytes(text) + " in " + std::to_string(host::encoding(text)) : "nil";
  }
  std::string date() { return host::describe(host::get<host::Object>(item_, "date as date")); }
  std::string properties(id key, id value) {
    answers_->properties = [NSDictionary dictionaryWithObject:value forKey:key];
    return host::describe(host::get<host::Object>(item_, "propertiesDictionary as dictionary"));
  }
  std::string property(id value) { return properties(@"key", value); }
  std::string items() {
    answers_->items = [NSArray arrayWithObjects:@"first", @"second", nil];
    return host::describe(host::get<host::Object>(appcast_, "items as SUAppcastItemKVZ()"));
  }
  // An item that has an instance already, and the references that this one wins beside the new
  // array's own.
  std::string itemAgain() {
    answers_->items = [NSArray arrayWithObject:@"first"];
    auto item = [&] { return host::get<host::Object>(appcast_, "items as SUAppcastItemKVZ()"); };
    host::Object array = item();
    if (!array) return "nil";
    std::vector<host::Value> elements = host::elements(array);
    if (elements.empty()) return "none";
    auto instance = elements[0].as<host::Object>();
    if (!instance) return "nil";
    int before = host::referenceCount(instance);
    host::Object another = item();
    bool same = host::elements(another).at(0).as<host::Object>() == instance;
    return (same ? "the same, " : "another, ") + balanced(instance, before + 1) + " after";
  }
  std::string data() {
    auto block = host::get<host::Object>(appcast_, "incrementalData as memoryblock");
    return host::describe(block) + exception();
  }
  std::string secondConstructor() {
    host::call(item_, "Constructor");
    return exception();
  }

  // What Cocoa gets.
  std::string userAgent(const host::String& text) {
    // Where the unlock is missing, the string would die too late.
    host::String another = text;
    int before = host::referenceCount(text);
    host::set(appcast_, "UserAgentString as string", text);
    int change = host::referenceCount(text) - before;
    for (int i = change; i < 0; ++i) host::StringKind::lock(text.handle());
    for (int i = change; i > 0; --i) host::StringKind::unlock(text.handle());
    return print(answers_->userAgent) + (change ? " " + std::to_string(change) : "");
  }
  std::string parameter(const host::Value& value) {
    NSArray* answer = parameters({host::dictionary({{"key", value}})});
    return [answer count] ? print([[answer objectAtIndex:0] objectForKey:@"key"]) : "no parameters";
  }
  std::string twoParameters() {
    NSArray* answer = parameters({host::dictionary(), host::dictionary()});
    return std::to_string([answer count]);
  }
  // References to the instance that are new while its event is raised, and afterwards; the event
  // itself holds one.
  std::string compare() {
    host::Object another = comparison_;
    int before = host::referenceCount(comparison_);
    duringEvent_ = before;
    id comparator = reinterpret_cast<id>(host::get<int32_t>(comparison_, "Handle"));
    int answer = [comparator compareVersion:nil toVersion:nil];
    return std::to_string(answer) + ", " + std::to_string(duringEvent_ - before) + " during, " +
           balanced(comparison_, before) + " after";
  }

private:
  host::Object wrapping(const char* className) {
    host::Object instance = host::create(className);
    host::set(instance, "Handle", handleOf([answers_ retain]));
    return instance;
  }
  // How many references more there are than expected. Where a lock or an unlock is missing, this
  // puts them right.
  static std::string balanced(const host::Object& object, int expected) {
    int change = host::referenceCount(object) - expected;
    for (int i = change; i < 0; ++i) host::ObjectKind::lock(object.handle());
    for (int i = change; i > 0; --i) host::ObjectKind::unlock(object.handle());
    return std::to_string(change);
  }
  static std::string exception() {
    auto raised = host::takeException();
    if (!raised) return "";
    return " " + raised->className + ": " + raised->message.value_or("nil") + ", " +
           std::to_string(raised->errorNumber);
  }
  NSArray* parameters(const std::vector<host::Value>& dictionaries) {
    parameters_ = host::array(9, dictionaries);
    id delegate = static_cast<id*>(host::data(updater_))[1];
    NSArray* answer = [delegate feedParametersForUpdater:nil sendingSystemProfile:NO];
    // A conversion that ended in an exception keeps the array.
    while (host::referenceCount(parameters_) > 1) host::ObjectKind::unlock(parameters_.handle());
    parameters_ = nullptr;
    return answer;
  }

  Answers* answers_ = nil;
  int duringEvent_ = 0;
  host::Object item_, appcast_, updater_, comparison_, parameters_;
};

void lack(std::initializer_list<const char*> operations) {
  for (const char* operation : operations) host::makeAbsent(operation);
}
void withoutCFStrings() { lack({"REALGetStringCFString"}); }
void withCopiedStrings() {
  lack({"REALGetStringCFString", "PluginGetStringData", "PluginDisposeStringData"});
  host::makePresent("StringGetCString");
}

// Uses of one operation.
struct Row {
  const char* name;
  const char* operation;
  std::string (*use)(Scene&);
  const char* present; // what a use gives
  const char* absent;
  int lookups = 1; // for each use while it is missing; negative: at least as many
  const char* host = "2013.03";
  void (*prepare)() = nullptr;
  host::Ledger losses = {};
  bool companion = true;
};
void PrintTo(const Row& row, std::ostream* out) { *out << row.operation; }

#define USE(expression) [](Scene& scene) -> std::string { return scene.expression; }

const char* const tooOften = " UnsupportedOperationException: Constructor called too often. "
                             "Object is already initialized., 0";
const char* const someDate = "2021-03-07 09:05:30";
host::Value hostDate() { return host::date({2021, 3, 7, 9, 5, 30}); }

const Row rows[] = {
    {"LockObject", "REALLockObject", USE(compare()), "7, 2 during, 0 after",
     "7, 1 during, -1 after"},
    {"LockObjectOfAnItem", "REALLockObject", USE(itemAgain()), "the same, 0 after",
     "the same, -1 after"},
    {"UnlockObject", "REALUnlockObject", USE(compare()), "7, 2 during, 0 after",
     "7, 2 during, 1 after"},
    {"GetEventInstance", "GetEventInstance", USE(compare()), "7, 2 during, 0 after",
     "-1, 0 during, 0 after"},
    {"LockString", "REALLockString", USE(userAgent(host::string("abc"))), "abc", "abc", 1, "2012.0",
     withoutCFStrings},
    {"UnlockString", "REALUnlockString", USE(userAgent(host::string("abc"))), "abc", "abc 1", 1,
     "2012.0", withoutCFStrings},
    {"NewInstanceForADate", "PluginNewInstance", USE(date()), "Date 2021-03-07 09:05:30", "nil"},
    {"NewInstanceForItems", "PluginNewInstance", USE(items()),
     "[SUAppcastItemKVZ, SUAppcastItemKVZ]", "[nil, nil]", 2},
    // The class asked for, and the one that every host has.
    {"NewInstanceForAnException", "PluginNewInstance", USE(secondConstructor()), tooOften, "", 2},
    {"RaiseException", "RuntimeRaiseException", USE(secondConstructor()), tooOften, ""},
    {"SetPropValueString", "REALSetPropValueString", USE(secondConstructor()), tooOften,
     " UnsupportedOperationException: nil, 0"},
    {"SetPropValueIntForAnException", "REALSetPropValueInt", USE(secondConstructor()), tooOften,
     tooOften},
    {"SetPropValueIntForADate", "REALSetPropValueInt", USE(date()), "Date 2021-03-07 09:05:30",
     "Date 1904-01-01 00:00:00", 6},

    {"BuildString", "REALBuildString", USE(title()), "A title in 134217984", "nil"},
    {"BuildStringForAnException", "REALBuildString", USE(secondConstructor()), tooOften,
     " UnsupportedOperationException: nil, 0"},
    {"SetStringEncoding", "REALSetStringEncoding", USE(title()), "A title in 134217984",
     "A title in 65535"},
    {"SetStringEncodingForAnException", "REALSetStringEncoding", USE(secondConstructor()), tooOften,
     tooOften},
    {"GetStringEncoding", "REALGetStringEncoding",
     USE(userAgent(host::string("\xE9", host::latin1))), "\xC3\xA9", "\xC3\x88", 1, "2012.0",
     withoutCFStrings},
    {"GetStringCFString", "REALGetStringCFString", USE(userAgent(host::string("abc"))), "abc",
     "abc", 2},
    {"GetStringCFStringBefore2012", "REALGetStringCFString", USE(userAgent(host::string("abc"))),
     "abc", "abc", 1, "2011.4"},
    {"GetStringData", "PluginGetStringData", USE(userAgent(host::string("abc"))), "abc", "nothing",
     -1, "2013.03", withoutCFStrings},
    {"DisposeStringData", "PluginDisposeStringData", USE(userAgent(host::string("abc"))), "abc",
     "abc", 1, "2013.03", withoutCFStrings},
    {"StringGetCString", "StringGetCString", USE(userAgent(host::string("abc"))), "abc", "nothing",
     1, "2013.03", withCopiedStrings},
    {"LoadGlobalMethodForLenB", "REALLoadGlobalMethod", USE(userAgent(host::string("abc"))), "abc",
     "nothing", -1, "2013.03", withCopiedStrings},
    {"LenB", "LenB( s as string ) as integer", USE(userAgent(host::string("abc"))), "abc",
     "nothing", -1, "2013.03", withCopiedStrings},

    {"CreateArray", "RuntimeArrayCreateSingleDimBoundedArray", USE(items()),
     "[SUAppcastItemKVZ, SUAppcastItemKVZ]", "nil"},
    {"ArrayInsertion", "RuntimeArrayDirectGetInsertProc", USE(items()),
     "[SUAppcastItemKVZ, SUAppcastItemKVZ]", "[]", 2},
    {"ArrayUpperBound", "RuntimeUBound", USE(twoParameters()), "2", "1"},
    {"ArrayElements", "RuntimeArrayDirectGetGetProc", USE(twoParameters()), "2", "0"},
    {"ArrayElementsOfABound", "RuntimeArrayDirectGetGetProc",
     USE(parameter(host::array(2, {1, 2}))), "(1, 2)", "no parameters"},

    {"NewMemoryBlock", "newMemoryBlock", USE(data()), "MemoryBlock \"abc\"",
     "nil OutOfMemoryException: Failed to allocate a memoryblock with 3 bytes in size., 0"},
    // Made, but without a way to its bytes.
    {"MemoryBlockGetPtr",
     "memoryBlockGetPtr",
     USE(data()),
     "MemoryBlock \"abc\"",
     "nil",
     1,
     "2013.03",
     [] {},
     {{{"MemoryBlock", 2}}}},
    {"MemoryBlockGetSize", "memoryBlockGetSize", USE(parameter(host::memoryBlock("abc"))),
     "<616263>", "<>"},
    // Without the host's classes no object is known.
    {"ObjectType",
     "pluginObjectType",
     USE(parameter(host::memoryBlock("abc"))),
     "<616263>",
     "null",
     -1,
     "2013.03",
     nullptr,
     {},
     false},
    {"ObjectIsA",
     "RuntimeObjectIsa",
     USE(parameter(host::memoryBlock("abc"))),
     "<616263>",
     "null",
     -1,
     "2013.03",
     nullptr,
     {},
     false},

    {"LoadObjectMethod", "REALLoadObjectMethod", USE(property(@"text")), "{\"key\": \"text\"}",
     "{}", 3},
    {"StringToVariant", "StringToVariant", USE(properties([NSNumber numberWithInt:1], @"text")),
     "{Int32 1: \"text\"}", "{Int32 1: nil}"},
    {"Int32ToVariant", "Int32ToVariant", USE(property([NSNumber numberWithInt:5])),
     "{\"key\": Int32 5}", "{\"key\": nil}"},
    {"UInt32ToVariant", "UInt32ToVariant", USE(property(numbers_coded('I', 5))),
     "{\"key\": UInt32 5}", "{\"key\": nil}"},
    {"Int64ToVariant", "Int64ToVariant", USE(property([NSNumber numberWithLongLong:5])),
     "{\"key\": Int64 5}", "{\"key\": nil}"},
    {"UInt64ToVariant", "UInt64ToVariant", USE(property(numbers_coded('Q', 5))),
     "{\"key\": UInt64 5}", "{\"key\": nil}"},
    {"SingleToVariant", "SingleToVariant", USE(property([NSNumber numberWithFloat:1.5f])),
     "{\"key\": Single 1.5}", "{\"key\": nil}"},
    {"DoubleToVariant", "DoubleToVariant", USE(property([NSNumber numberWithDouble:1.5])),
     "{\"key\": Double 1.5}", "{\"key\": nil}"},
    {"BooleanToVariant", "BooleanToVariant", USE(property([NSNumber numberWithBool:YES])),
     "{\"key\": Boolean true}", "{\"key\": nil}"},

    // Where an operation that reads a variant is missing, its property is read instead. The key is
    // a variant as well.
    {"LoadGlobalMethodForVarType", "REALLoadGlobalMethod", USE(parameter(5)), "5", "5", 2},
    {"VarType", "VarType(value As Variant) As Int32", USE(parameter(5)), "5", "5", 2},
    {"VariantToString", "VariantToString", USE(parameter("text")), "text", "text", 2},
    {"VariantToInt32", "VariantToInt32", USE(parameter(5)), "5", "5"},
    {"VariantToInt64", "VariantToInt64", USE(parameter(int64_t(5000000000))), "5000000000",
     "5000000000"},
    {"VariantToSingle", "VariantToSingle", USE(parameter(1.5f)), "1.5", "1.5"},
    {"VariantToDouble", "VariantToDouble", USE(parameter(2.5)), "2.5", "2.5"},
    {"GetPropValueInt64", "REALGetPropValueInt64", USE(parameter(int64_t(5000000000))),
     "5000000000", "0", 1, "2013.03", [] { lack({"VariantToInt64"}); }},
    {"GetPropValueSingle", "REALGetPropValueSingle", USE(parameter(1.5f)), "1.5", "0", 1, "2013.03",
     [] { lack({"VariantToSingle"}); }},
    {"GetPropValueDouble", "REALGetPropValueDouble", USE(parameter(2.5)), "2.5", "0", 1, "2013.03",
     [] { lack({"VariantToDouble"}); }},
    {"GetPropValueString", "REALGetPropValueString", USE(parameter("text")), "text", "nothing", 2,
     "2013.03", [] { lack({"VariantToString"}); }},
    {"GetPropValueObject", "REALGetPropValueObject", USE(parameter(hostDate())), someDate, "null"},
    // Without it, a dictionary seems to be empty.
    {"GetPropValueInt", "REALGetPropValueInt", USE(parameter(hostDate())), someDate, "nothing"},
};

class HostOperation : public session::TestBase, public testing::WithParamInterface<Row> {};

TEST_P(HostOperation, IsSkippedAndAskedForAtEachUseUntilItIsFound) {
  const Row& row = GetParam();
  session::start(row.host, {.companion = row.companion});
  if (row.prepare) row.prepare();
  host::makeAbsent(row.operation);
  host::resetCounts();
  Scene scene;
  EXPECT_EQ(host::lookups(row.operation), 0u) << "asked for before it is used";
  for (unsigned uses : {1, 2}) {
    EXPECT_EQ(row.use(scene), row.absent);
    if (row.lookups >= 0) {
      EXPECT_EQ(host::lookups(row.operation), uses * unsigned(row.lookups));
    } else {
      EXPECT_GE(host::lookups(row.operation), uses);
    }
    EXPECT_EQ(host::calls(row.operation), 0u);
  }
  host::makePresent(row.operation);
  uint64_t misses = host::lookups(row.operation);
  for (int uses = 0; uses < 3; ++uses) {
    EXPECT_EQ(row.use(scene), row.present);
    EXPECT_EQ(host::lookups(row.operation), misses + 1);
  }
  EXPECT_GT(host::calls(row.operation), 0u);
  expectLosses(row.losses, "an operation without which they cannot be given back was missing");
}

INSTANTIATE_TEST_SUITE_P(Operations, HostOperation, testing::ValuesIn(rows),
                         [](const auto& info) { return std::string(info.param.name); });

// ---- All together
// ----------------------------------------------------------------------------------

bool isPlain(const Row& row, const std::string& host) {
  return row.host == host && !row.prepare && row.companion;
}

class HostOperations : public session::Test {};

TEST_P(HostOperations, AreAskedForOnceWhereTheHostHasThem) {
  start();
  host::resetCounts();
  {
    Scene scene;
    for (int times = 0; times < 3; ++times)
      for (const Row& row : rows) row.use(scene);
  }
  unsigned seen = 0;
  for (const std::string& name : host::operationNames()) {
    bool ofAnObject = name.find('.') != std::string::npos; // asked for by each conversion
    if (host::calls(name) == 0 || ofAnObject) continue;
    ++seen;
    EXPECT_EQ(host::lookups(name), 1u) << name;
  }
  EXPECT_GT(seen, 30u);
}

INSTANTIATE_TEST_SUITE_P(Hosts, HostOperations, session::everyHost(), session::hostName);

using Lack = std::tuple<std::string, std::string>; // host, operation

class HostWithout : public session::TestBase, public testing::WithParamInterface<Lack> {};

TEST_P(HostWithout, OneOperationIsSurvivedByEveryUse) {
  auto [host, operation] = GetParam();
  session::start(host);
  host::makeAbsent(operation);
  {
    host::Pool pool; // may hold host objects in boxes
    Scene scene;
    for (const Row& row : rows) row.use(scene);
    host::makePresent(operation);
    for (const Row& row : rows)
      if (isPlain(row, host)) EXPECT_EQ(row.use(scene), row.present) << row.name;
  }
  if (operation == "REALUnlockObject" || operation == "REALUnlockString" ||
      operation == "memoryBlockGetPtr")
    expectLosses(host::ledger(), "there was no way to give them back");
}

INSTANTIATE_TEST_SUITE_P(Operations, HostWithout,
                         testing::Combine(testing::Values("2012.0", "2013.03"),
                                          testing::ValuesIn(host::operationNames())),
                         [](const auto& info) {
                           std::string name =
                               std::get<0>(info.param) + " " + std::get<1>(info.param);
                           for (char& c : name)
                             if (!isalnum(static_cast<unsigned char>(c))) c = '_';
                           return name;
                         });

} // namespace
