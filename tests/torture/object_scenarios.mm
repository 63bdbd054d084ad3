// The appcast and its items, as host programs use them.

#include "played.h"
#include "scenarios.h"

namespace torture {

namespace {

using played::wrapping;

constexpr Raises anException = {"NSExceptionKVZ", nullptr};
constexpr Raises calledTooOften = {"UnsupportedOperationException",
                                   "Constructor called too often. Object is already initialized."};

struct MemberRow {
  const char* declaration;
  const char* answer;
};
const MemberRow itemMembers[] = {
    {"title as string", "Version 3.0"},
    {"versionString as string", "3.0"},
    {"displayVersionString as string", "3.0 \u00fcber alles"},
    {"date as date", "Date 2021-03-07 09:05:30"},
    {"itemDescription as string", played::longText},
    {"releaseNotesURL as string", "http://example.org/a/notes.html"},
    {"fileURL as string", "http://example.org/3.0.zip"},
    {"DSASignature as string", "MCwCFA=="},
    {"minimumSystemVersion as string", "10.6"},
};

// A host date whose fields could not all be set keeps the others at their beginnings, and a text
// that could not be marked as UTF-8 reads as Mac Roman.
std::vector<std::string> incomplete() {
  return {"3.0 \u221a\u00baber alles", "Date 1904-03-07 09:05:30", "Date 2021-01-07 09:05:30",
          "Date 2021-03-01 09:05:30",  "Date 2021-03-07 00:05:30", "Date 2021-03-07 09:00:30",
          "Date 2021-03-07 09:05:00",  "Date 1904-01-01 00:00:00"};
}

void askEveryMember(const host::Object& item, bool nothing, Raises raises = {}) {
  for (const MemberRow& row : itemMembers)
    expect(row.declaration, member(item, row.declaration, {}, raises), nothing ? "nil" : row.answer,
           incomplete());
}

void item() {
  PlayedItem* played = [PlayedItem played];
  played->properties = [NSDictionary
      dictionaryWithObjectsAndKeys:@"Version 3.0", @"title",
                                   [NSDictionary dictionaryWithObject:@"http://example.org/3.0.zip"
                                                               forKey:@"url"],
                                   @"enclosure", nil];
  host::Object item = wrapping("SUAppcastItemKVZ", played);
  askEveryMember(item, false);
  auto properties = member(item, "propertiesDictionary as dictionary").as<host::Object>();
  auto at = [](const host::Object& dictionary, const char* key) {
    bool is = dictionary && host::className(dictionary) == "Dictionary";
    return is ? host::at(dictionary, key) : host::Object();
  };
  expect("title of the properties", at(properties, "title"), "\"Version 3.0\"");
  host::Object enclosure = at(properties, "enclosure");
  expect("url of the enclosure", at(enclosure, "url"), "\"http://example.org/3.0.zip\"");
  enclosure.reset();
  properties.reset();
  destroy(item);
}

void emptyItem() {
  host::Object item = make("SUAppcastItemKVZ");
  askEveryMember(item, true);
  expect("properties", member(item, "propertiesDictionary as dictionary"), "nil");
  destroy(item);
}

void itemOfNothing() {
  host::Object item = wrapping("SUAppcastItemKVZ", [PlayedItem playedSo:PlayedNothing]);
  askEveryMember(item, true);
  expect("properties", member(item, "propertiesDictionary as dictionary"), "nil");
  destroy(item);
}

void raisingItem() {
  host::Object item = wrapping("SUAppcastItemKVZ", [PlayedItem playedSo:PlayedRaises]);
  askEveryMember(item, true, anException);
  expect("properties", member(item, "propertiesDictionary as dictionary", {}, anException), "nil");
  destroy(item);
}

// Constructed by the host program, then once more.
void construct(const char* className) {
  host::Object object = make(className);
  member(object, "Constructor");
  bool made = object && host::get<uint32_t>(object, "Handle");
  if (!made && !faulty()) fail("the constructor made nothing");
  if (made) {
    member(object, "Constructor", {}, calledTooOften);
  } else {
    member(object, "Constructor");
  }
  destroy(object);
}

void constructItem() { construct("SUAppcastItemKVZ"); }
void constructAppcast() { construct("SUAppcastKVZ"); }

void constructUnloaded() {
  for (const char* name : {"SUAppcastItemKVZ", "SUAppcastKVZ"}) {
    host::Object object = make(name);
    for (int time : {1, 2}) {
      member(object, "Constructor");
      if (object) expect("handle " + std::to_string(time), host::getValue(object, "Handle"), "0");
    }
    destroy(object);
  }
}

host::Value itemsOf(const host::Object& appcast, Raises raises = {}) {
  return member(appcast, "items as SUAppcastItemKVZ()", {}, raises);
}

std::vector<std::string> titles(const host::Value& items) {
  std::vector<std::string> all;
  auto array = items.as<host::Object>();
  if (!array) return all;
  for (const host::Value& element : host::elements(array)) {
    auto item = element.as<host::Object>();
    all.push_back(item ? shown(member(item, "versionString as string")) : "nil");
  }
  return all;
}

void appcast() {
  PlayedAppcast* played = [PlayedAppcast played];
  played->items = [[NSArray alloc] initWithObjects:[PlayedItem played], [PlayedItem played], nil];
  host::Object appcast = wrapping("SUAppcastKVZ", played);

  assign(appcast, "UserAgentString as string", "Demo/1.0");
  expect("agent kept", shown(static_cast<id>(played->userAgent)), "Demo/1.0");
  expect("agent", member(appcast, "UserAgentString as string"), "Demo/1.0");
  assign(appcast, "UserAgentString as string", host::String());
  expect("agent cleared", shown(static_cast<id>(played->userAgent)), "nil", {"Demo/1.0"});
  expect("no agent", member(appcast, "UserAgentString as string"), "nil", {"Demo/1.0"});

  member(appcast, "fetchAppcastFromURL(url as string)", {"http://example.org/appcast.xml"});
  expect("fetched", shown(static_cast<id>(played->fetched)), "http://example.org/appcast.xml");
  for (host::Value nowhere : {host::Value("no URL at all"), host::Value(host::String())}) {
    member(appcast, "fetchAppcastFromURL(url as string)", {nowhere});
    expect("not fetched", shown(static_cast<id>(played->fetched)), "nil",
           {"http://example.org/appcast.xml"});
  }

  expect("data",
         member(appcast, "incrementalData as memoryblock", {},
                faulty() ? Raises{"OutOfMemoryException",
                                  "Failed to allocate a memoryblock with 6 bytes in size."}
                         : Raises{}),
         "MemoryBlock \"<rss/>\"");
  destroy(appcast);
}

void appcastItems() {
  PlayedAppcast* played = [PlayedAppcast played];
  played->items = [[NSArray alloc] initWithObjects:[PlayedItem played], [PlayedItem played], nil];
  host::Object appcast = wrapping("SUAppcastKVZ", played);
  host::Value first = itemsOf(appcast), second = itemsOf(appcast);
  expectElements("first", titles(first), {"3.0", "3.0"});
  expectElements("second", titles(second), {"3.0", "3.0"});
  // While one array keeps them, the other one's are the same.
  auto a = first.as<host::Object>(), b = second.as<host::Object>();
  if (!faulty())
    for (size_t i = 0; i < 2; ++i)
      if (host::elements(a)[i].as<host::Object>() != host::elements(b)[i].as<host::Object>())
        fail("an item has two instances");
  if (a && host::upperBound(a) >= 0) {
    auto item = host::elements(a)[0].as<host::Object>();
    if (item) member(item, "Constructor", {}, calledTooOften);
  }
  destroy(a);
  first = {};
  destroy(b);
  second = {};
  destroy(appcast);
}

} // namespace

} // namespace torture

// An array that raises when its third element is asked for.
@interface BrittleItems : NSArray
@end
@implementation BrittleItems
- (NSUInteger)count {
  return 3;
}
- (id)objectAtIndex:(NSUInteger)index {
  if (index == 2) [NSException raise:@"Brittle" format:@"no element 2"];
  return [PlayedItem played];
}
@end

namespace torture {

namespace {

void expectBrittleItems(const std::vector<std::string>& expected) {
  PlayedAppcast* played = [PlayedAppcast played];
  played->items = [BrittleItems new];
  host::Object appcast = wrapping("SUAppcastKVZ", played);
  host::Value items = itemsOf(appcast, anException);
  expectElements("items", titles(items), expected);
  items = {};
  destroy(appcast);
}

void brittleItems() { expectBrittleItems({"3.0", "3.0"}); }
// The exception comes out, and nothing is answered.
void brittleItemsAlone() { expectBrittleItems({}); }

void emptyAppcast() {
  host::Object appcast = make("SUAppcastKVZ");
  expect("agent", member(appcast, "UserAgentString as string"), "nil");
  assign(appcast, "UserAgentString as string", "Demo/1.0");
  member(appcast, "fetchAppcastFromURL(url as string)", {"http://example.org/"});
  expect("items", itemsOf(appcast), "[]");
  expect("data", member(appcast, "incrementalData as memoryblock"), "nil");
  destroy(appcast);
}

void appcastOfNothing() {
  host::Object appcast = wrapping("SUAppcastKVZ", [PlayedAppcast playedSo:PlayedNothing]);
  expect("agent", member(appcast, "UserAgentString as string"), "nil");
  expect("items", itemsOf(appcast), "[]");
  expect("data", member(appcast, "incrementalData as memoryblock"), "nil");
  destroy(appcast);
}

void raisingAppcast() {
  host::Object appcast = wrapping("SUAppcastKVZ", [PlayedAppcast playedSo:PlayedRaises]);
  expect("agent", member(appcast, "UserAgentString as string", {}, anException), "nil");
  assign(appcast, "UserAgentString as string", "Demo/1.0", anException);
  member(appcast, "fetchAppcastFromURL(url as string)", {"http://example.org/"}, anException);
  expect("items", itemsOf(appcast, anException), "[]");
  expect("data", member(appcast, "incrementalData as memoryblock", {}, anException), "nil");
  destroy(appcast);
}

} // namespace

const std::vector<Scenario> objectScenarios = {
    {"item", &standard, item},
    {"item-empty", &standard, emptyItem},
    {"item-of-nothing", &standard, itemOfNothing},
    {"item-raising", &standard, raisingItem},
    {"item-raising-refused", &refusing, raisingItem},
    {"item-raising-alone", &alone, raisingItem},
    {"item-constructed", &standard, constructItem},
    {"appcast", &standard, appcast},
    {"appcast-items", &standard, appcastItems},
    {"appcast-items-alone", &alone, brittleItemsAlone},
    {"appcast-items-brittle", &standard, brittleItems},
    {"appcast-empty", &standard, emptyAppcast},
    {"appcast-of-nothing", &standard, appcastOfNothing},
    {"appcast-raising", &standard, raisingAppcast},
    {"appcast-constructed", &standard, constructAppcast},
    {"constructed-unloaded", &unloaded, constructUnloaded},
};

} // namespace torture
