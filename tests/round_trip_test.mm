// Generated trees of host values go to Cocoa and come back. What comes back is compared with a
// model of the conversion tables that knows nothing of how they are carried out.
//
// A failure prints the seed, the number of the tree and the smallest tree found that fails too.
// Repeat it with ROUND_TRIP_SEED=<seed>; ROUND_TRIP_TREES=<count> sets how many trees a test tries.

#include "conversion.h"

#include <gmock/gmock.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <random>
#include <sstream>

using conversion::dictionaryToHost;
using conversion::Feeder;

namespace {

// ---- Trees

enum class Kind {
  nothing,
  int32,
  int64,
  uint32,
  uint64,
  single,
  real,
  currency,
  color,
  boolean,
  text,
  date,
  block,
  file,
  unknown,
  range,
  time,
  error,
  thing,
  array,      // of the element code in `code`
  dictionary, // children: key, value, key, value …
  count
};

// A piece of text in one encoding, and what is left of it behind both conversions.
struct Text {
  std::string bytes;
  uint32_t encoding = host::utf8;
  std::optional<std::string> back; // nothing: a variant of no string
};

struct Tree {
  Kind kind = Kind::nothing;
  int32_t code = 0; // of a text, an array, an unknown variant
  int64_t number = 0;
  double real = 0;
  Text text;
  host::DateFields date;
  std::vector<Tree> children;
};

// Objects that stand in trees as they are, one set for each test.
struct Fixtures {
  std::vector<host::Object> things, errors;
  std::vector<std::string> files; // existing, missing, and at last one without a folder
};

// ---- The model

// Whether the value gives nil in Cocoa, where an array could not hold it.
bool nilInCocoa(const Tree& tree) {
  switch (tree.kind) {
  case Kind::nothing:
  case Kind::unknown:
    return true;
  case Kind::array:
    return tree.code == 6;
  case Kind::file:
    return tree.number == 2;
  default:
    return false;
  }
}

std::string printReal(double value) {
  if (std::isnan(value)) return "nan";
  std::ostringstream out;
  out.precision(17);
  out << value;
  return out.str();
}

std::string expected(const Tree& tree, const Fixtures& fixtures) {
  switch (tree.kind) {
  case Kind::nothing:
  case Kind::unknown:
  case Kind::count:
    return "nil";
  case Kind::int32:
  case Kind::color:
    return "Int32ToVariant " + std::to_string(int32_t(tree.number));
  case Kind::int64:
  case Kind::uint64:
    return "Int64ToVariant " + std::to_string(tree.number);
  case Kind::uint32:
    return "Int64ToVariant " + std::to_string(uint32_t(tree.number));
  case Kind::single:
    return "SingleToVariant " + printReal(float(tree.real));
  case Kind::real:
  case Kind::currency:
    return "DoubleToVariant " + printReal(tree.real);
  case Kind::boolean:
    return std::string("BooleanToVariant ") + (tree.number ? "true" : "false");
  case Kind::text:
    return "StringToVariant " + (tree.text.back ? "\"" + *tree.text.back + "\"" : "none");
  case Kind::date:
    return "Date " + testing::PrintToString(tree.date);
  case Kind::block:
    return tree.text.bytes.empty() ? "nil" : "MemoryBlock \"" + tree.text.bytes + "\"";
  case Kind::file:
    return nilInCocoa(tree) ? "nil" : "FolderItem " + fixtures.files[size_t(tree.number)];
  case Kind::range:
    return "NSRangeKVZ " + std::to_string(uint64_t(tree.number));
  case Kind::time:
    return "CMTimeKVZ " + std::to_string(tree.number);
  case Kind::error:
    return "NSErrorKVZ " +
           std::to_string(uintptr_t(conversion::wrapped(fixtures.errors[size_t(tree.number)])));
  case Kind::thing:
    return "Thing " + std::to_string(uintptr_t(fixtures.things[size_t(tree.number)].handle()));
  case Kind::array: {
    if (nilInCocoa(tree)) return "nil";
    std::string all = "[";
    for (const Tree& child : tree.children)
      all += (all.size() > 1 ? ", " : "") + expected(child, fixtures);
    return all + "]";
  }
  case Kind::dictionary: {
    std::map<std::string, std::string> sorted;
    for (size_t i = 0; i < tree.children.size(); i += 2)
      if (tree.children[i].kind != Kind::nothing) // such an entry is left out
        sorted[expected(tree.children[i], fixtures)] = expected(tree.children[i + 1], fixtures);
    std::string all = "{";
    for (auto& [key, value] : sorted) all += (all.size() > 1 ? ", " : "") + key + ": " + value;
    return all + "}";
  }
  }
  return "";
}

// What came back, in the same words.
std::string actual(const host::Object& value) {
  if (!value) return "nil";
  host::VariantView view = host::inspect(value);
  if (!view.maker.empty()) {
    if (view.maker == "StringToVariant") {
      auto string = view.value.as<host::String>();
      EXPECT_TRUE(!string || host::encoding(string) == host::utf8);
      return "StringToVariant " + (string ? "\"" + host::bytes(string) + "\"" : "none");
    }
    if (view.maker == "SingleToVariant" || view.maker == "DoubleToVariant")
      return view.maker + " " + printReal(view.value.as<double>());
    return view.maker + " " + host::print(view.value);
  }
  std::string type = host::className(value);
  if (type == "Date") return "Date " + testing::PrintToString(host::dateFields(value));
  if (type == "MemoryBlock") return "MemoryBlock \"" + host::memoryBlockBytes(value) + "\"";
  if (type == "FolderItem") return "FolderItem " + host::path(value);
  if (type == "NSRangeKVZ" || type == "CMTimeKVZ") {
    int64_t first;
    memcpy(&first, host::data(value), sizeof first);
    return type + " " +
           (type == "CMTimeKVZ" ? std::to_string(first) : std::to_string(uint64_t(first)));
  }
  if (type == "NSErrorKVZ")
    return type + " " + std::to_string(uintptr_t(conversion::wrapped(value)));
  if (type == "Thing") return type + " " + std::to_string(uintptr_t(value.handle()));
  if (type == "Array") {
    std::string all = "[";
    for (const host::Value& element : host::elements(value))
      all += (all.size() > 1 ? ", " : "") + actual(element.as<host::Object>());
    return all + "]";
  }
  if (type == "Dictionary") {
    std::map<std::string, std::string> sorted;
    for (auto& [key, each] : host::entries(value)) sorted[actual(key)] = actual(each);
    std::string all = "{";
    for (auto& [key, each] : sorted) all += (all.size() > 1 ? ", " : "") + key + ": " + each;
    return all + "}";
  }
  return "something of class " + type;
}

// ---- Trees as host values, and as text

host::Value build(const Tree& tree, const Fixtures& fixtures) {
  switch (tree.kind) {
  case Kind::nothing:
  case Kind::count:
    return nullptr;
  case Kind::int32:
    return int32_t(tree.number);
  case Kind::int64:
    return tree.number;
  case Kind::uint32:
    return uint32_t(tree.number);
  case Kind::uint64:
    return uint64_t(tree.number);
  case Kind::single:
    return float(tree.real);
  case Kind::real:
    return tree.real;
  case Kind::currency:
    return host::variantOfCode(6, tree.real);
  case Kind::color:
    return host::variantOfCode(16, int32_t(tree.number));
  case Kind::boolean:
    return tree.number != 0;
  case Kind::text: {
    host::String string = host::string(tree.text.bytes, tree.text.encoding);
    if (tree.code == 8) return string;
    return host::variantOfCode(tree.code, string);
  }
  case Kind::date:
    return host::date(tree.date);
  case Kind::block:
    return host::memoryBlock(tree.text.bytes);
  case Kind::file:
    return host::folderItem(fixtures.files[size_t(tree.number)]);
  case Kind::unknown:
    return host::variantOfCode(tree.code, "unknown"); // as a key, the same as no other
  case Kind::range:
  case Kind::time: {
    host::Object wrapper = host::create(tree.kind == Kind::range ? "NSRangeKVZ" : "CMTimeKVZ");
    memcpy(host::data(wrapper), &tree.number, sizeof tree.number);
    return wrapper;
  }
  case Kind::error:
    return fixtures.errors[size_t(tree.number)];
  case Kind::thing:
    return fixtures.things[size_t(tree.number)];
  case Kind::array: {
    std::vector<host::Value> elements;
    for (const Tree& child : tree.children) elements.push_back(build(child, fixtures));
    return host::array(tree.code, elements);
  }
  case Kind::dictionary: {
    std::vector<std::pair<host::Value, host::Value>> entries;
    for (size_t i = 0; i < tree.children.size(); i += 2)
      entries.emplace_back(build(tree.children[i], fixtures),
                           build(tree.children[i + 1], fixtures));
    return host::dictionary(entries);
  }
  }
  return nullptr;
}

std::string escaped(const std::string& bytes) {
  std::ostringstream out;
  for (unsigned char byte : bytes) {
    char hex[8];
    snprintf(hex, sizeof hex, byte >= 0x20 && byte < 0x7F ? "%c" : "\\x%02X", byte);
    out << hex;
  }
  return out.str();
}

std::string print(const Tree& tree) {
  constexpr const char* names[] = {"nil",    "int32",    "int64",     "uint32",  "uint64", "single",
                                   "double", "currency", "color",     "boolean", "text",   "date",
                                   "block",  "file",     "unknown",   "range",   "time",   "error",
                                   "thing",  "array",    "dictionary"};
  static_assert(std::size(names) == size_t(Kind::count));
  std::string name = names[size_t(tree.kind)];
  switch (tree.kind) {
  case Kind::nothing:
    return name;
  case Kind::single:
  case Kind::real:
  case Kind::currency:
    return name + " " + printReal(tree.real);
  case Kind::text:
    return name + " of code " + std::to_string(tree.code) + " in encoding " +
           std::to_string(tree.text.encoding) + " \"" + escaped(tree.text.bytes) + "\"";
  case Kind::block:
    return name + " \"" + escaped(tree.text.bytes) + "\"";
  case Kind::date:
    return name + " " + testing::PrintToString(tree.date);
  case Kind::unknown:
    return name + " of code " + std::to_string(tree.code);
  case Kind::array:
  case Kind::dictionary: {
    if (tree.kind == Kind::array) name += " of code " + std::to_string(tree.code);
    name += " (";
    for (size_t i = 0; i < tree.children.size(); ++i)
      name += std::string(i == 0                                   ? ""
                          : tree.kind == Kind::dictionary && i % 2 ? ": "
                                                                   : ", ") +
              print(tree.children[i]);
    return name + ")";
  }
  default:
    return name + " " + std::to_string(tree.number);
  }
}

// ---- The generator

class Generator {
public:
  Generator(uint64_t seed, bool companion) : random_(seed), companion_(companion) {}

  Tree tree() {
    left_ = 1 + pick(40);
    return any(0);
  }

private:
  size_t pick(size_t count) { return std::uniform_int_distribution<size_t>(0, count - 1)(random_); }
  bool chance(size_t oneIn) { return pick(oneIn) == 0; }
  template <typename T, size_t N> T oneOf(const T (&all)[N]) { return all[pick(N)]; }

  int64_t number() {
    constexpr int64_t special[] = {0,         1,          -1,        255,       256,   INT32_MAX,
                                   INT32_MIN, UINT32_MAX, INT64_MAX, INT64_MIN, 65535, -32768};
    if (chance(2)) return oneOf(special);
    return int64_t(random_()) >> pick(64);
  }

  double real() {
    const double special[] = {0.0, -0.0, 1.0, -1.5, 1e-300, 1e300, INFINITY, -INFINITY, NAN, 0.1};
    if (chance(2)) return oneOf(special);
    return std::ldexp(double(int64_t(random_())), int(pick(200)) - 160);
  }

  Text text() {
    struct Letter {
      const char* utf8;
      char macRoman, latin1;
    };
    constexpr Letter shared[] = {{"a", 'a', 'a'},
                                 {"Z", 'Z', 'Z'},
                                 {" ", ' ', ' '},
                                 {"&", '&', '&'},
                                 {"%", '%', '%'},
                                 {"\n", '\n', '\n'},
                                 {"\xC3\xA9", '\x8E', '\xE9'},
                                 {"\xC3\xBC", '\x9F', '\xFC'}};
    constexpr const char* wide[] = {"\xE2\x82\xAC", "\xE6\x97\xA5", "e\xCC\x81", "\xF0\x9F\x8D\x8E",
                                    "\xEF\xBF\xBD"};
    constexpr size_t lengths[] = {0, 1, 2, 7, 98, 99, 100, 101, 300};
    Text made;
    std::string all, mac, latin;
    bool onlyShared = chance(2);
    for (size_t left = oneOf(lengths); left > 0; --left) {
      if (!onlyShared && chance(3)) {
        all += oneOf(wide);
        continue;
      }
      const Letter& letter = shared[pick(std::size(shared))];
      all += letter.utf8;
      mac += letter.macRoman;
      latin += letter.latin1;
    }
    made.back = all;
    made.bytes = all;
    size_t encoding = pick(onlyShared ? 5 : 2);
    if (encoding == 1) toUTF16(made);
    if (encoding == 2) made.bytes = mac, made.encoding = host::macRoman;
    if (encoding == 3) made.bytes = mac, made.encoding = host::unknownEncoding;
    if (encoding == 4) made.bytes = latin, made.encoding = host::latin1;
    if (made.back->empty()) made.back.reset();
    return made;
  }

  void toUTF16(Text& made) {
    made.encoding = host::utf16;
    NSString* string = [NSString stringWithUTF8String:made.bytes.c_str()];
    std::vector<unichar> units([string length]);
    [string getCharacters:units.data()];
    if (chance(8)) { // a lone surrogate has no UTF-8
      units.insert(units.begin() + long(pick(units.size() + 1)), unichar(0xDC00 + pick(0x400)));
      made.back.reset();
    } else if (chance(8)) { // what follows a NUL is left out
      units.insert(units.end(), {0, 'x'});
    }
    made.bytes.assign(reinterpret_cast<char*>(units.data()), units.size() * sizeof(unichar));
  }

  host::DateFields date() {
    return {int32_t(1600 + pick(900)), int32_t(1 + pick(12)), int32_t(1 + pick(28)),
            int32_t(pick(24)),         int32_t(pick(60)),     int32_t(pick(60))};
  }

  std::string bytes() {
    constexpr size_t lengths[] = {0, 1, 2, 100, 5000};
    std::string all(oneOf(lengths), '\0');
    for (char& byte : all) byte = char(random_());
    return all;
  }

  Tree scalar(Kind kind) {
    Tree made;
    made.kind = kind;
    made.number = number();
    made.real = real();
    if (kind == Kind::int32 || kind == Kind::color) made.number = int32_t(made.number);
    if (kind == Kind::uint32) made.number = uint32_t(made.number);
    if (kind == Kind::boolean) made.number = made.number & 1;
    if (kind == Kind::single) made.real = float(made.real);
    if (kind == Kind::date) made.date = date();
    if (kind == Kind::block) made.text.bytes = bytes();
    if (kind == Kind::file) made.number = int64_t(pick(3));
    if (kind == Kind::error || kind == Kind::thing) made.number = int64_t(pick(2));
    if (kind == Kind::text) {
      constexpr int32_t codes[] = {8, 8, 8, 18, 19, 20, 21, 23};
      made.text = text();
      made.code = oneOf(codes);
    }
    if (kind == Kind::unknown) {
      constexpr int32_t codes[] = {0, 1, 10, 12, 15, 17, 22, 24, 4096, 4097, 4102, 5000, -1};
      made.code = oneOf(codes);
    }
    return made;
  }

  Tree any(int depth) {
    if (left_ > 0) --left_;
    if (depth < 8 && left_ > 0 && !chance(3))
      return chance(2) ? dictionary(depth) : chance(3) ? plainArray() : array(depth);
    for (;;) {
      Kind kind = Kind(pick(size_t(Kind::array)));
      bool wrapper = kind >= Kind::range && kind <= Kind::thing;
      if (!wrapper || companion_) return scalar(kind);
    }
  }

  Tree plainArray() {
    struct Row {
      int32_t code;
      Kind element;
    };
    constexpr Row rows[] = {{2, Kind::int32}, {3, Kind::int64},   {4, Kind::single},
                            {5, Kind::real},  {6, Kind::int64},   {7, Kind::date},
                            {8, Kind::text},  {11, Kind::boolean}};
    const Row& row = rows[pick(std::size(rows))];
    Tree made;
    made.kind = Kind::array;
    made.code = row.code;
    for (size_t count = pick(6); count > 0; --count) {
      made.children.push_back(scalar(row.element));
      made.children.back().code = 8; // a plain string
    }
    return made;
  }

  Tree array(int depth) {
    Tree made;
    made.kind = Kind::array;
    made.code = 9;
    for (size_t count = pick(6); count > 0; --count) {
      Tree child = any(depth + 1);
      if (!nilInCocoa(child)) made.children.push_back(std::move(child));
    }
    return made;
  }

  // Keys that stay apart on both sides.
  Tree key(size_t index) {
    Tree made;
    switch (pick(7)) {
    case 0:
      made.kind = Kind::int32;
      made.number = int64_t(index);
      break;
    case 1:
      made.kind = Kind::int64;
      made.number = int64_t(index) + (int64_t(1) << 40);
      break;
    case 2:
      made.kind = Kind::real;
      made.real = double(index) + 0.5;
      break;
    case 3:
      made.kind = Kind::date;
      made.date = {int32_t(1900 + index), 6, 1, 12, 0, 0};
      break;
    default:
      made.kind = Kind::text;
      made.code = 8;
      made.text.bytes = "key " + std::to_string(index) + (chance(3) ? "\xE2\x82\xAC" : "");
      made.text.back = made.text.bytes;
    }
    return made;
  }

  Tree dictionary(int depth) {
    Tree made;
    made.kind = Kind::dictionary;
    size_t count = pick(6);
    for (size_t i = 0; i < count; ++i) {
      bool odd = i == 0 && chance(6); // one key at most that gives nothing
      made.children.push_back(!odd ? key(i) : chance(2) ? Tree() : scalar(Kind::unknown));
      made.children.push_back(any(depth + 1));
    }
    return made;
  }

  std::mt19937_64 random_;
  bool companion_;
  size_t left_ = 0;
};

// ---- Shrinking

// Every tree that is one step simpler.
std::vector<Tree> simpler(const Tree& tree) {
  std::vector<Tree> all;
  for (const Tree& child : tree.children) all.push_back(child);
  size_t step = tree.kind == Kind::dictionary ? 2 : 1;
  for (size_t i = 0; i < tree.children.size(); i += step) {
    Tree less = tree;
    less.children.erase(less.children.begin() + long(i), less.children.begin() + long(i + step));
    all.push_back(less);
  }
  for (size_t i = 0; i < tree.children.size(); ++i) {
    for (Tree& child : simpler(tree.children[i])) {
      bool typed = tree.kind == Kind::array && tree.code != 9;
      bool key = tree.kind == Kind::dictionary && i % 2 == 0;
      if ((typed && child.kind != tree.children[i].kind) || key) continue;
      if (tree.kind == Kind::array && nilInCocoa(child)) continue;
      Tree less = tree;
      less.children[i] = std::move(child);
      all.push_back(std::move(less));
    }
  }
  if (tree.kind == Kind::block && !tree.text.bytes.empty()) {
    Tree less = tree;
    less.text.bytes.resize(less.text.bytes.size() / 2);
    all.push_back(less);
  }
  if (tree.kind != Kind::int32 && tree.children.empty()) {
    Tree zero;
    zero.kind = Kind::int32;
    all.push_back(zero);
  }
  return all;
}

// A tree that fails and of which nothing simpler does.
Tree shrunk(Tree tree, const std::function<bool(const Tree&)>& fails) {
  for (int tries = 0; tries < 5000;) {
    bool found = false;
    for (Tree& less : simpler(tree)) {
      ++tries;
      if (!fails(less)) continue;
      tree = std::move(less);
      found = true;
      break;
    }
    if (!found) break;
  }
  return tree;
}

// ---- The tests

constexpr size_t kTreesATest = 1500;
constexpr size_t kTreesACall = 50;

uint64_t seedFor(const std::string& hostName) {
  if (const char* given = getenv("ROUND_TRIP_SEED")) return strtoull(given, nullptr, 0);
  uint64_t seed = 20130300;
  for (char c : hostName) seed = seed * 31 + uint64_t(c);
  return seed;
}

size_t treesATest() {
  const char* given = getenv("ROUND_TRIP_TREES");
  return given ? strtoul(given, nullptr, 0) : kTreesATest;
}

class RoundTrip : public session::Test {
protected:
  void run(bool companion) {
    start({.companion = companion});
    // Half of the time, for nothing unless a cell is misused; then set it to true.
    host::setStacks(false);
    // Neither the zone of the machine nor one of whole hours.
    [NSTimeZone setDefaultTimeZone:[NSTimeZone timeZoneForSecondsFromGMT:19800]];
    Feeder feeder;
    prepare(companion);
    uint64_t seed = seedFor(GetParam());
    Generator generator(seed, companion);
    size_t count = treesATest();
    for (size_t done = 0; done < count; done += kTreesACall) {
      host::Pool pool;
      std::vector<Tree> trees;
      for (size_t i = 0; i < kTreesACall; ++i) trees.push_back(generator.tree());
      std::vector<std::string> back = trip(feeder, trees);
      for (size_t i = 0; i < kTreesACall; ++i) {
        if (back[i] == expected(trees[i], fixtures_)) continue;
        Tree smallest = shrunk(trees[i], [&](const Tree& tree) {
          host::Pool inner;
          return trip(feeder, {tree})[0] != expected(tree, fixtures_);
        });
        FAIL() << "seed " << seed << ", tree " << done + i << ", at its smallest\n  "
               << print(smallest) << "\nshould come back as\n  " << expected(smallest, fixtures_)
               << "\nbut came back as\n  " << trip(feeder, {smallest})[0];
      }
    }
    EXPECT_EQ(host::pendingExceptions(), 0u);
    EXPECT_EQ(host::outOfBounds(), 0u);
  }

  void TearDown() override {
    fixtures_ = {};
    session::Test::TearDown();
  }

private:
  void prepare(bool companion) {
    std::string existing = session::folder() + "/a file #1 50%";
    std::ofstream(existing) << "content";
    fixtures_.files = {existing, session::folder() + "/missing; or not?",
                       session::folder() + "/no folder/file"};
    if (!companion) return;
    host::defineClass("Thing");
    for (int i = 0; i < 2; ++i) {
      fixtures_.things.push_back(host::create("Thing"));
      fixtures_.errors.push_back(host::create("NSErrorKVZ"));
      *static_cast<id*>(host::data(fixtures_.errors.back())) =
          [[NSError errorWithDomain:@"domain" code:i userInfo:nil] retain];
    }
  }

  // What each tree is after both conversions.
  std::vector<std::string> trip(Feeder& feeder, const std::vector<Tree>& trees) {
    std::vector<host::Value> dictionaries;
    for (const Tree& tree : trees)
      dictionaries.push_back(host::dictionary({{"tree", build(tree, fixtures_)}}));
    NSArray* answer = feeder.ask(host::array(9, dictionaries));
    std::vector<std::string> back;
    for (NSDictionary* each in answer) {
      host::Object made = dictionaryToHost(each);
      back.push_back(made ? actual(host::at(made, "tree")) : "nothing at all");
    }
    std::string reason = "an exception";
    for (const std::string& line : session::takeLog()) reason += ": " + line;
    while (back.size() < trees.size()) back.push_back(reason);
    return back;
  }

  Fixtures fixtures_;
};

class RoundTripWithoutCompanion : public RoundTrip {};

TEST_P(RoundTrip, TreesComeBackAsTheTablesSay) { run(true); }

TEST_P(RoundTripWithoutCompanion, TreesComeBackAsTheTablesSay) { run(false); }

INSTANTIATE_TEST_SUITE_P(Hosts, RoundTrip, session::everyHost(), session::hostName);
INSTANTIATE_TEST_SUITE_P(Hosts, RoundTripWithoutCompanion, session::everyInterface(),
                         session::hostName);

bool contains(const Tree& tree, const std::function<bool(const Tree&)>& is) {
  if (is(tree)) return true;
  for (const Tree& child : tree.children)
    if (contains(child, is)) return true;
  return false;
}

TEST(Shrinking, LeavesTheSmallestTreeThatFails) {
  host::Pool pool;
  auto color = [](const Tree& tree) { return tree.kind == Kind::color; };
  auto inner = [&](const Tree& tree) { return tree.kind == Kind::array && contains(tree, color); };
  Generator generator(1, true);
  int found = 0;
  for (int i = 0; i < 2000 && found < 20; ++i) {
    Tree tree = generator.tree();
    if (!contains(tree, inner)) continue;
    ++found;
    Tree least = shrunk(tree, [&](const Tree& each) { return contains(each, inner); });
    EXPECT_EQ(least.kind, Kind::array);
    ASSERT_EQ(least.children.size(), 1u) << print(least);
    EXPECT_EQ(least.children[0].kind, Kind::color);
  }
  EXPECT_EQ(found, 20);
}

TEST(Generating, RepeatsItselfAndMakesEveryKind) {
  Generator first(7, true), second(7, true);
  std::set<Kind> kinds;
  for (int i = 0; i < 300; ++i) {
    host::Pool pool;
    Tree tree = first.tree();
    EXPECT_EQ(print(tree), print(second.tree()));
    contains(tree, [&](const Tree& each) {
      kinds.insert(each.kind);
      return false;
    });
  }
  EXPECT_EQ(kinds.size(), size_t(Kind::count));
}

} // namespace
