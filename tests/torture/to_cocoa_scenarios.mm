// Every rule by which a host value becomes a Cocoa object, and every way to read a host string. The
// values are those of the dictionaries that a feed-parameters handler answers.

#include "scenarios.h"
#include "stage.h"

#include "testbed/companion/companion.h"
#include "testbed/server/release.h"

namespace torture {

namespace {

// Converts values one a step.
struct Converter {
  host::Object answer;
  Stage stage{{feedHandler(answer)}};

  // What the value becomes. LINES: of exceptions that end the conversion although nothing fails.
  std::string operator()(const std::string& label, const host::Value& value, unsigned lines = 0) {
    if (!stage.delegate) return "nil";
    host::Object array = host::array(9, {host::dictionary({{"value", value}})});
    NSArray* given = feedParameters(label.c_str(), stage.delegate, answer, array, lines);
    if (![given count]) return "nil";
    return shown(static_cast<id>([[given objectAtIndex:0] objectForKey:@"value"]));
  }
};

// What an object becomes that the host cannot tell the kind of.
constexpr const char* box = "KVZREALobjectWrapper";

struct Row {
  const char* label;
  host::Value value;
  std::string expected;
  std::vector<std::string> otherwise = {};
};

void expectAll(const std::vector<Row>& rows) {
  Converter convert;
  for (const Row& row : rows)
    expect(row.label, convert(row.label, row.value), row.expected, row.otherwise);
  convert.stage.end();
}

std::vector<Row> scalars() {
  return {
      {"2", host::variantOfCode(2, -5), "l:-5", {"l:0"}},
      {"16", host::variantOfCode(16, 0xFF8800), "l:16746496", {"l:0"}},
      {"3", host::variantOfCode(3, int64_t{-5000000000}), "q:-5000000000", {"q:0"}},
      {"4", host::variantOfCode(4, 1.25f), "f:1.25", {"f:0"}},
      {"5", host::variantOfCode(5, 1.5), "d:1.5", {"d:0"}},
      {"6", host::variantOfCode(6, 19.75), "d:19.75", {"d:0"}},
      {"7", host::date({2021, 3, 7, 9, 5, 30}), "2021-03-07 09:05:30"},
      {"8", host::variantOfCode(8, "text"), "text"},
      {"18", host::variantOfCode(18, "text"), "text"},
      {"19", host::variantOfCode(19, "text"), "text"},
      {"20", host::variantOfCode(20, "text"), "text"},
      {"21", host::variantOfCode(21, "text"), "text"},
      {"23", host::variantOfCode(23, "text"), "text"},
      {"11", host::variantOfCode(11, 2), "c:1", {"c:0"}},
      {"17", host::variantOfCode(17, 1), "nil"},
      {"nil", nullptr, "nil"},
  };
}

void readScalars() { expectAll(scalars()); }

// A host that offers no operation for reading variants; their properties serve.
void readProperties() {
  for (const char* name :
       {"VarType(value As Variant) As Int32", "VariantToString", "VariantToSingle",
        "VariantToDouble", "VariantToInt64", "VariantToInt32"})
    host::makeAbsent(name);
  expectAll(scalars());
}

void arrays() {
  expectAll({
      {"int32",
       host::array(2, {1, -2}),
       "[l:1, l:-2]",
       {"[l:1]", "[l:0, l:-2]", "[l:1, l:0]", "[]", "[l:0]", "[l:0, l:0]"}},
      {"int64", host::array(3, {int64_t{-5000000000}}), "[q:-5000000000]", {"[q:0]", "[]"}},
      {"single", host::array(4, {1.25f}), "[f:1.25]", {"[f:0]", "[]"}},
      {"double", host::array(5, {1.5}), "[d:1.5]", {"[d:0]", "[]"}},
      {"date", host::array(7, {host::date({2021, 3, 7, 9, 5, 30})}), "[2021-03-07 09:05:30]"},
      {"string", host::array(8, {"one", "two"}), "[one, two]", {"[one]"}},
      {"object",
       host::array(9, {1, host::array(8, {"in"})}),
       "[l:1, [in]]",
       {"[l:0, [in]]", "[l:1]", "[l:0]"}},
      {"boolean", host::array(11, {true, false}), "[c:1, c:0]", {"[c:0, c:0]", "[c:1]", "[]"}},
      {"currency", host::array(6, {int64_t{1}}), "nil"},
      {"empty", host::array(2), "[]", {"[l:0]"}},
  });
}

// A nil among the elements, which Cocoa raises for.
void holedArrays() {
  Converter convert;
  expect("strings", convert("strings", host::array(8, {"one", host::String()}), 1), "nil",
         {"[one]"});
  expect("objects", convert("objects", host::array(9, {1, nullptr}), 1), "nil", {"[l:1]", "[l:0]"});
  convert.stage.end();
}

// What kind of object it is, is asked of the host; unless it can tell, it goes into a box.
void objects() {
  const std::string file = SPARKLE_FRAMEWORKS "/Broken.framework/Versions/A/Sparkle";
  const std::string missing = SPARKLE_FRAMEWORKS "/Broken.framework/missing";
  host::defineClass("Thing");
  host::Object inner = host::dictionary({{"k", "deep"}});
  expectAll({
      {"block", host::memoryBlock("bytes"), "data bytes", {box, "data "}},
      {"file", host::folderItem(file), "file://" + testbed::percent_escaped(file), {box}},
      {"missing", host::folderItem(missing), "file://" + testbed::percent_escaped(missing), {box}},
      {"lost", host::folderItem(SPARKLE_FRAMEWORKS "/no/where"), "nil", {box}},
      {"dictionary",
       host::dictionary({{"a", 1}, {"b", inner}}),
       "{[a: l:1, b: {[k: deep]}]}",
       {box, "{[]}", "{[a: l:1]}", "{[b: {[k: deep]}]}", "{[a: l:0, b: {[k: deep]}]}",
        "{[a: nil, b: {[k: deep]}]}", "{[a: l:1, b: nil]}", "{[a: l:1, b: {[]}]}",
        "{[a: l:1, b: {[k: nil]}]}", "{[a: l:1, b: {[nil: deep]}]}",
        std::string("{[a: l:1, b: ") + box + "]}", "{[b: {[k: deep]}, nil: l:1]}",
        "{[a: l:1, nil: {[k: deep]}]}", "{[a: nil, b: nil]}", "{[nil: nil]}",
        std::string("{[a: l:1, b: ") + box + "]}"}},
      {"empty dictionary", host::dictionary(), "{[]}", {box}},
      {"thing", host::create("Thing"), box},
  });
}

void boxlessObjects() {
  host::defineClass("Thing");
  expectAll({{"thing", host::create("Thing"), "nil"}});
}

// Instances of wrapper classes: the first, one behind it, the one that catches most, some further
// down, the last.
void wrappers() {
  Converter convert;
  for (const char* name : {"NSPathComponentCellKVZ", "NSPathCellKVZ", "NSObjectKVZ", "NSPipeKVZ",
                           "NSTextViewKVZ", "NSURLRequestKVZ", "PDFActionKVZ"}) {
    Played* wrapped = [Played played];
    host::Object wrapper = host::create(name);
    *static_cast<id*>(host::data(wrapper)) = [wrapped retain];
    expect(name, convert(name, wrapper), "Played", {box});
    destroy(wrapper);
  }
  convert.stage.end();
}

// Where every class answers for itself, these come behind all the others.
void lastWrappers() {
  Converter convert;
  struct Value {
    const char* wrapper;
    const char* expected;
  };
  constexpr Value rows[] = {
      {"NSSizeKVZ", "value {_NSSize=ff}"},
      {"NSRectKVZ", "value {_NSRect={_NSPoint=ff}{_NSSize=ff}}"},
      {"NSRangeKVZ", "value {_NSRange=II}"},
      {"NSPointKVZ", "value {_NSPoint=ff}"},
      {"QTKitTimeKVZ", "value {?=qll}"},
      {"QTKitTimeRangeKVZ", "value {?={?=qll}{?=qll}}"},
      {"CMTimeMappingKVZ", "value {?={?={?=qiIq}{?=qiIq}}{?={?=qiIq}{?=qiIq}}}"},
      {"CMTimeRangeKVZ", "value {?={?=qiIq}{?=qiIq}}"},
      {"CMTimeKVZ", "value {?=qiIq}"},
  };
  for (const Value& row : rows) {
    host::Object wrapper = host::create(row.wrapper);
    expect(row.wrapper, convert(row.wrapper, wrapper), row.expected, {box});
    destroy(wrapper);
  }
  for (const char* name : {"WebPolicyDelegateKVZ", "CGColorKVZ", "CGLayerKVZ"}) {
    Played* wrapped = [Played played];
    host::Object wrapper = host::create(name);
    *static_cast<id*>(host::data(wrapper)) = [wrapped retain];
    expect(name, convert(name, wrapper), "Played", {box});
    destroy(wrapper);
  }
  convert.stage.end();
}

// ---- Strings, in each way that hosts offer

// The first are read alike whatever the host knows; the others say what becomes of them when it
// cannot tell the encoding (Mac Roman is assumed, up to the first zero byte) or convert.
std::vector<Row> strings() {
  return {
      {"ascii", host::string("plain", host::ascii), "plain"},
      {"UTF-8", host::string("gr\u00fc\u00df"), "gr\u00fc\u00df", {"gr\u221a\u00ba\u221a\u00fc"}},
      {"UTF-16", host::string(u"gr\u00fc\u00df"), "gr\u00fc\u00df", {"g"}},
      {"Mac Roman", host::string("caf\x8E", host::macRoman), "caf\u00e9"},
      {"Latin 1", host::string("caf\xE9", host::latin1), "caf\u00e9", {"caf\u00c8"}},
      {"unknown", host::string("caf\x8E", host::unknownEncoding), "caf\u00e9"},
      {"none", host::String(), "nil"},
  };
}

void readStrings(std::initializer_list<const char*> absent, const char* otherwise = "nil") {
  for (const char* name : absent) host::makeAbsent(name);
  std::vector<Row> rows = strings();
  for (Row& row : rows) row.otherwise.push_back(otherwise);
  expectAll(rows);
}

void convertedStrings() { readStrings({}); }
void storedStrings() { readStrings({"REALGetStringCFString"}); }
// Without the operation that hands out bytes: those of a string and their number.
void countedStrings() {
  host::makePresent("StringGetCString");
  // A text without its length counts as empty.
  readStrings({"REALGetStringCFString", "PluginGetStringData", "PluginDisposeStringData"}, "");
}
void undisposedStrings() { readStrings({"REALGetStringCFString", "PluginDisposeStringData"}); }

} // namespace

const std::vector<Scenario> toCocoaScenarios = {
    {"to-cocoa-scalars", &standard, readScalars},
    {"to-cocoa-properties", &standard, readProperties},
    {"to-cocoa-arrays", &standard, arrays},
    {"to-cocoa-arrays-holed", &standard, holedArrays},
    {"to-cocoa-objects", &standard, objects},
    {"to-cocoa-boxless", &bare, boxlessObjects},
    {"to-cocoa-wrappers", &standard, wrappers},
    {"to-cocoa-last-wrappers", &flat, lastWrappers},
    {"to-cocoa-strings", &standard, convertedStrings},
    {"to-cocoa-strings-stored", &standard, storedStrings},
    {"to-cocoa-strings-counted", &standard, countedStrings},
    {"to-cocoa-strings-undisposed", &standard, undisposedStrings},
};

} // namespace torture
