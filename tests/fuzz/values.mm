// Trees of values both ways, against what the rules say each value becomes.
//
// The input: direction, ways that are missing; a tree, each value as its kind and what that needs.
// A tree that is made in Cocoa goes through an item's propertiesDictionary, and what came of it
// back through feed parameters; a tree that is made in the host goes through feed parameters.
//
// Every value is made together with a line that says what it becomes, or with none where anything
// may come of it.
#include "fakes.h"
#include "lines.h"

#include "testbed/cocoa/numbers.h"
#include "testbed/cocoa/typeids.h"
#include "tests/support/odd_objects.h"

#include <cmath>

using Line = std::optional<std::string>;

// A number of any type code.
@interface CodedNumber : NSNumber {
@public
  char code[8];
}
@end
@implementation CodedNumber
- (const char*)objCType {
  return code;
}
- (double)doubleValue {
  return 15.125;
}
- (void)getValue:(void*)buffer {
  (void)buffer;
}
@end

@interface Plain : NSObject
@end
@implementation Plain
+ (void)initialize {
  typeids_deny(self);
}
@end

@protocol Boxing
+ (id)wrap:(void*)object;
@end

namespace {

using fuzz::hex, fuzz::hostLine, fuzz::joined, fuzz::real, fuzz::sortedEntries, fuzz::utf8;

constexpr unsigned deepest = 5;
constexpr unsigned mostValues = 300;
// Collections nested deeper than this make the whole conversion answer nothing.
constexpr unsigned carriedDepth = 512;
// Beyond that many in one tree, letting go of it takes more stack than there is.
constexpr unsigned mostLevels = 3000;

// What the tree at hand does besides.
struct Tree {
  unsigned values = 0;
  unsigned levels = 0; // of all deep values
  bool mayRaise = false;
  bool tooDeep = false; // it answers nothing at all
  bool mayBeTooDeep = false;
  bool hasNaN = false, hasAnyKeys = false; // of the host's
  std::vector<id> cycles;                  // mutable collections that hold themselves
  std::vector<host::Object> hostCycles;
};
Tree* tree;

// How many arrays stand around a value. Few mostly: a level costs as much as a value, and the
// fuzzer, which cannot know, would spend its time on hundreds of them.
unsigned takeLevels(fuzz::Input& input) {
  if (tree->levels >= mostLevels) return 0;
  unsigned byte = input.byte();
  unsigned levels = byte < 0xF0 ? byte % 16 : (byte - 0xEF) * 128;
  tree->levels += levels;
  // The levels that stand above are few, but for those of other deep ones.
  if (levels > carriedDepth)
    tree->tooDeep = true;
  else if (tree->levels + 100 > carriedDepth)
    tree->mayBeTooDeep = true;
  return levels;
}

bool full(unsigned depth) { return ++tree->values > mostValues || depth > deepest; }

// ---- Lines

std::string cocoaLine(id object) {
  if (!object || object == [NSNull null]) return "nil";
  if ([object isKindOfClass:[NSNumber class]]) {
    std::string code = [object objCType];
    if (code == "f" || code == "d") return code + " " + real([object doubleValue]);
    return code + " " + std::to_string([object longLongValue]);
  }
  if ([object isKindOfClass:[NSString class]])
    return "text " + hex(utf8(fuzz::unitsOf(object)).value_or("?"));
  if ([object isKindOfClass:[NSDate class]])
    return "date " + real([object timeIntervalSinceReferenceDate]);
  if ([object isKindOfClass:[NSData class]])
    return "bytes " + hex({static_cast<const char*>([object bytes]), [object length]});
  if ([object isKindOfClass:[NSArray class]]) {
    std::string text = "[";
    for (NSUInteger i = 0; i < [object count]; ++i)
      text += cocoaLine([object objectAtIndex:i]) + ",";
    return text + "]";
  }
  if ([object isKindOfClass:[NSDictionary class]]) {
    std::vector<std::string> entries;
    NSEnumerator* keys = [object keyEnumerator];
    while (id key = [keys nextObject])
      entries.push_back(cocoaLine(key) + "=" + cocoaLine([object objectForKey:key]));
    return sortedEntries(entries);
  }
  if ([object isKindOfClass:[NSValue class]]) {
    // GNUstep's getValue: does not always get all of it.
    std::string type = [object objCType];
    auto line = [&](const char* className, auto content) {
      return type + fuzz::structLine(*fuzz::structClass(className), &content);
    };
    if (type == @encode(NSRect)) return line("NSRectKVZ", [object rectValue]);
    if (type == @encode(NSSize)) return line("NSSizeKVZ", [object sizeValue]);
    if (type == @encode(NSPoint)) return line("NSPointKVZ", [object pointValue]);
    if (type == @encode(NSRange)) return line("NSRangeKVZ", [object rangeValue]);
    return type;
  }
  return object_getClassName(object);
}

// What a list in Cocoa is made of: a nil element ends the conversion.
constexpr const char* raising = "raises";

Line cocoaList(const std::vector<Line>& elements) {
  std::string text = "[";
  for (const Line& element : elements) {
    if (!element) return {};
    if (*element == "nil" || *element == raising) return raising;
    text += *element + ",";
  }
  return text + "]";
}

Line cocoaEntries(const std::vector<std::pair<Line, Line>>& entries) {
  std::vector<std::string> lines;
  bool raises = false;
  for (auto& [key, value] : entries) {
    if (!key || !value) return {};
    raises |= *key == raising || *value == raising;
    lines.push_back(*key + "=" + *value);
  }
  return raises ? raising : sortedEntries(lines);
}

// ---- Trees in Cocoa

struct Made {
  id object = nil; // autoreleased
  Line there;      // in the host
  Line back;       // in Cocoa again
};
std::vector<Made> earlier;

// A scalar as host and Cocoa print it.
template <typename T> std::string printed(T value) {
  if constexpr (std::is_floating_point_v<T>)
    return real(value);
  else
    return std::to_string(value);
}

struct NumberRow;
using NumberMaker = Made (*)(fuzz::Input& input, const NumberRow& row);
struct NumberRow {
  NumberMaker make;
  SEL selector; // that makes it of a T; the codes that no message makes are given instead
  char made;
  const char* variant; // the operation that makes it a variant
  const char* code;    // when it comes back
};

// Of a T, of which the host gets what fits into an Arrived.
template <typename T, typename Arrived = T>
Made numberOf(fuzz::Input& input, const NumberRow& row) {
  auto value = input.number<T>();
  auto arrived = static_cast<Arrived>(value);
  id object;
  if (row.selector)
    object = reinterpret_cast<id (*)(id, SEL, T)>([NSNumber methodForSelector:row.selector])(
        [NSNumber class], row.selector, value);
  else
    object = numbers_coded(row.made, static_cast<int64_t>(value));
  std::string there = printed(arrived);
  if constexpr (std::is_same_v<Arrived, bool>) there = arrived ? "true" : "false";
  return {object, std::string(row.variant) + " " + there,
          std::string(row.code) + " " + printed(arrived)};
}

Made numberOfAnyCode(fuzz::Input& input, const NumberRow&) {
  CodedNumber* odd = [[CodedNumber new] autorelease];
  std::string_view code = input.bytes(7);
  memcpy(odd->code, code.data(), code.size());
  tree->mayRaise = true; // what it cannot be asked for
  return {odd, {}, {}};
}

Made number(fuzz::Input& input) {
  static const NumberRow rows[] = {
      {numberOf<signed char, bool>, @selector(numberWithChar:), 0, "BooleanToVariant", "c"},
      {numberOf<BOOL, bool>, @selector(numberWithBool:), 0, "BooleanToVariant", "c"},
      {numberOf<uint8_t>, nullptr, 'C', "Int32ToVariant", "l"},
      {numberOf<int16_t>, @selector(numberWithShort:), 0, "Int32ToVariant", "l"},
      {numberOf<uint16_t>, nullptr, 'S', "Int32ToVariant", "l"},
      {numberOf<int32_t>, @selector(numberWithInt:), 0, "Int32ToVariant", "l"},
      {numberOf<uint32_t>, nullptr, 'I', "UInt32ToVariant", "q"},
      {numberOf<int32_t>, @selector(numberWithLong:), 0, "Int32ToVariant", "l"},
      {numberOf<uint32_t>, nullptr, 'L', "UInt32ToVariant", "q"},
      {numberOf<int64_t>, @selector(numberWithLongLong:), 0, "Int64ToVariant", "q"},
      {numberOf<uint64_t, uint32_t>, nullptr, 'Q', "UInt64ToVariant", "q"},
      {numberOf<float>, @selector(numberWithFloat:), 0, "SingleToVariant", "f"},
      {numberOf<double>, @selector(numberWithDouble:), 0, "DoubleToVariant", "d"},
      {numberOfAnyCode, nullptr, 0, nullptr, nullptr},
  };
  const NumberRow& row = rows[input.below(std::size(rows))];
  return row.make(input, row);
}

Made text(fuzz::Input& input) {
  std::u16string units;
  if (unsigned length = input.byte(); length & 1)
    for (char byte : input.bytes(length / 2)) units += static_cast<unsigned char>(byte);
  else
    for (unsigned i = 0; i < length / 2; ++i) units += input.number<char16_t>();
  std::string bytes = utf8(units).value_or("");
  bytes = bytes.substr(0, bytes.find('\0'));
  return {[AnyString stringWithUnits:units], fuzz::textInHost(units),
          bytes.empty() ? "nil" : "text " + hex(bytes)};
}

Made date(fuzz::Input& input) {
  OddDate* odd = [[OddDate alloc] init];
  [odd autorelease];
  if (input.byte() & 1) {
    odd->seconds = input.number<double>();
    // What an initialiser makes that throws is by Cocoa's rules nobody's.
    if (std::isnan(odd->seconds)) fuzz::expectCocoaLosses();
    tree->mayRaise = true;
    return {odd, {}, {}};
  }
  constexpr int from1970 = 978307200;
  auto seconds = input.number<int32_t>();
  odd->seconds = double(seconds) - from1970;
  return {odd, fuzz::dateInHost(seconds), "date " + real(odd->seconds)};
}

Made structValue(fuzz::Input& input, const char* className) {
  const fuzz::StructClass& type = *fuzz::structClass(className);
  auto content = input.number<NSRect>();
  std::string line = fuzz::structLine(type, &content);
  return {[NSValue valueWithBytes:&content objCType:type.cocoaType], className + line,
          type.cocoaType + line};
}

Made value(fuzz::Input& input) {
  switch (input.below(6)) {
  case 0:
    return structValue(input, "NSRectKVZ");
  case 1:
    return structValue(input, "NSSizeKVZ");
  case 2:
    return structValue(input, "NSPointKVZ");
  case 3:
    return structValue(input, "NSRangeKVZ");
  case 4:
    return {[NSValue valueWithPointer:"pointer"], "nil", "nil"};
  default: {
    struct Time {
      long long value;
      int32_t scale, flags;
    } time = input.number<Time>();
    return {[NSValue valueWithBytes:&time objCType:"{?=qll}"], "QTKitTimeKVZ", {}};
  }
  }
}

Made wrappedObject(fuzz::Input& input) {
  switch (input.below(8)) {
  case 0:
    return {[NSError errorWithDomain:@"fuzz" code:1 userInfo:nil], "NSErrorKVZ", "NSError"};
  case 1:
    return {[NSTimeZone timeZoneForSecondsFromGMT:3600], "NSTimeZoneKVZ", {}};
  case 2:
    return {[NSCharacterSet controlCharacterSet], "NSCharacterSetKVZ", {}};
  case 3:
    return {[[[NSLocale alloc] initWithLocaleIdentifier:@"en"] autorelease], "NSLocaleKVZ", {}};
  case 4:
    return {[[Plain new] autorelease], "NSObjectKVZ", "Plain"};
  case 5:
    return {[[[NSAttributedString alloc] initWithString:@"a"] autorelease], {}, {}};
  case 6: {
    // The host's own object, in a box and out of it.
    host::Object item = host::create("SUAppcastItemKVZ");
    return {[(id<Boxing>)objc_getClass("KVZREALobjectWrapper") wrap:item.handle()],
            "SUAppcastItemKVZ", "KVZREALobjectWrapper"};
  }
  default: {
    static const char* const rows[] = {
#define ROW(name) #name "GetTypeID",
        TYPEID_ROWS(ROW)
#undef ROW
            nullptr};
    const char* row = rows[input.below(std::size(rows))];
    unsigned long type = row ? typeids_of(row) : input.number<int32_t>();
    return {[typeids_object(type) autorelease], {}, {}};
  }
  }
}

Made make(fuzz::Input& input, unsigned depth);

Made list(fuzz::Input& input, unsigned depth) {
  NSMutableArray* array = [NSMutableArray array];
  Line there = "[";
  std::vector<Line> back;
  for (unsigned n = input.below(6); n > 0; --n) {
    Made element = make(input, depth + 1);
    [array addObject:element.object];
    if (there) there = element.there ? Line(*there + *element.there + ",") : Line();
    back.push_back(element.back);
  }
  if (there) *there += "]";
  return {array, there, cocoaList(back)};
}

// What may be compared and copied without an end or a throw.
bool simple(id object) {
  if ([object isKindOfClass:[CodedNumber class]]) return false;
  for (Class type : {[NSString class], [NSValue class], [NSDate class], [NSData class]})
    if ([object isKindOfClass:type]) return true;
  return object == [NSNull null];
}

Made entries(fuzz::Input& input, unsigned depth) {
  NSMutableDictionary* dictionary = [NSMutableDictionary dictionary];
  std::vector<std::string> there;
  std::vector<std::pair<Line, Line>> back;
  bool certain = true;
  unsigned count = input.below(8);
  bool anyKeys = count == 7, tooDeep = tree->tooDeep;
  for (unsigned i = 0; i < count; ++i) {
    std::string name = "k" + std::to_string(i);
    Made key{[NSString stringWithUTF8String:name.c_str()], "StringToVariant text " + hex(name),
             "text " + hex(name)};
    if (anyKeys)
      if (Made any = make(input, depth + 1); simple(any.object)) key = any;
    // Some keys are the same in the host.
    if (anyKeys) key.there = key.back = {};
    Made made = make(input, depth + 1);
    [dictionary setObject:made.object forKey:key.object];
    certain &= key.there && made.there;
    if (certain) there.push_back(*key.there + "=" + *made.there);
    back.push_back({key.back, made.back});
  }
  if (anyKeys && tree->tooDeep && !tooDeep) {
    // It may have been replaced, or was a key that could not be used.
    tree->tooDeep = false;
    tree->mayBeTooDeep = true;
  }
  return {dictionary, certain ? Line(sortedEntries(there)) : Line(), cocoaEntries(back)};
}

Made deep(fuzz::Input& input, unsigned depth) {
  Made core = make(input, depth + 1);
  unsigned levels = takeLevels(input);
  std::string open(levels, '['), close;
  for (unsigned i = 0; i < levels; ++i) {
    core.object = [NSArray arrayWithObject:core.object];
    close += ",]";
  }
  if (core.there) core.there = open + *core.there + close;
  if (core.back && *core.back == "nil" && levels) core.back = raising;
  if (core.back && *core.back != raising) core.back = open + *core.back + close;
  return core;
}

Made cycle(fuzz::Input& input) {
  tree->tooDeep = true;
  if (input.byte() & 1) {
    NSMutableArray* array = [NSMutableArray array];
    id itself = array;
    [array addObject:itself];
    tree->cycles.push_back([array retain]);
    return {array, {}, {}};
  }
  NSMutableDictionary* dictionary = [NSMutableDictionary dictionary];
  [dictionary setObject:[NSArray arrayWithObject:dictionary] forKey:@"itself"];
  tree->cycles.push_back([dictionary retain]);
  return {dictionary, {}, {}};
}

Made brittle(fuzz::Input& input, unsigned depth) {
  BrittleArray* array = [[BrittleArray new] autorelease];
  if (input.byte() & 1) array->thrown = [[NSObject new] autorelease];
  array->first = make(input, depth + 1).object;
  tree->mayRaise = true;
  return {array, {}, {}};
}

Made madeOf(fuzz::Input& input, unsigned depth) {
  if (full(depth)) return {[NSNull null], "nil", "nil"};
  switch (input.below(16)) {
  case 0:
    return {[NSNull null], "nil", "nil"};
  case 1:
  case 2:
    return text(input);
  case 3:
  case 4:
    return number(input);
  case 5:
    return date(input);
  case 6: {
    std::string_view bytes = input.bytes(input.below(20));
    NSData* data = [NSData dataWithBytes:bytes.data() length:bytes.size()];
    return {data, bytes.empty() ? "nil" : "bytes " + hex(bytes),
            bytes.empty() ? "nil" : "bytes " + hex(bytes)};
  }
  case 7: {
    std::string address =
        (input.byte() & 1 ? "file:///" : "http://") + std::string(input.bytes(input.below(24)));
    NSString* string = [NSString stringWithCString:address.c_str()
                                          encoding:NSISOLatin1StringEncoding];
    id url = [NSURL URLWithString:string];
    return {url ? url : [NSNull null], {}, {}};
  }
  case 8:
    return value(input);
  case 9:
    return wrappedObject(input);
  case 10:
    return list(input, depth);
  case 11: {
    // In whatever order it answers them. Alone in it anything will do: nothing is compared.
    NSMutableSet* set = [NSMutableSet set];
    for (unsigned n = input.below(6); n > 0; --n) {
      id element = make(input, depth + 1).object;
      if (simple(element) || (n == 1 && ![set count])) [set addObject:element];
    }
    if (tree->tooDeep) tree->tooDeep = false, tree->mayBeTooDeep = true;
    return {set, {}, {}};
  }
  case 12:
    return entries(input, depth);
  case 13:
    if (!earlier.empty()) return earlier[input.byte() % earlier.size()];
    return {[NSNull null], "nil", "nil"};
  case 14:
    return deep(input, depth);
  default:
    // A cycle is as dear as the deepest value, and two are no more than one.
    return input.byte() % 8 == 1 ? cycle(input) : brittle(input, depth);
  }
}

Made make(fuzz::Input& input, unsigned depth) {
  Made made = madeOf(input, depth);
  // A tree of trees is soon a forest; and what comes again is as deep again.
  if (!tree->tooDeep && !tree->mayBeTooDeep && depth >= deepest - 1) earlier.push_back(made);
  return made;
}

// ---- Trees in the host

struct HostMade {
  host::Value value;
  Line there; // in Cocoa
};

HostMade makeInHost(fuzz::Input& input, unsigned depth);

HostMade hostText(fuzz::Input& input) {
  constexpr uint32_t encodings[] = {host::utf8,   host::utf16, host::macRoman,
                                    host::latin1, host::ascii, host::unknownEncoding,
                                    12345};
  uint32_t encoding = encodings[input.below(std::size(encodings))];
  host::String string = host::string(input.bytes(input.below(64)), encoding);
  auto readable = host::text(string);
  if (!readable) return {string, {}};
  return {string, "text " + hex(*readable)};
}

// Of a T, which is a There in Cocoa.
template <typename T, char code, typename There = T> HostMade scalarOf(fuzz::Input& input) {
  auto value = input.number<T>();
  if (value != value) tree->hasNaN = true;
  return {value, std::string(1, code) + " " + printed(static_cast<There>(value))};
}
HostMade hostBoolean(fuzz::Input& input) {
  bool value = input.byte() & 1;
  return {value, value ? "c 1" : "c 0"};
}
HostMade lateDate(fuzz::Input& input) {
  tree->mayRaise = true;
  return {host::date({1950 + input.byte(), 1, 2, 3, 4, 5}), {}};
}
HostMade readableText(fuzz::Input& input) {
  HostMade made = hostText(input);
  if (!made.there) tree->mayRaise = true;
  return made;
}

HostMade hostScalarValue(fuzz::Input& input) {
  constexpr HostMade (*all[])(fuzz::Input&) = {scalarOf<int32_t, 'l'>,
                                               scalarOf<uint32_t, 'q'>,
                                               scalarOf<int64_t, 'q'>,
                                               scalarOf<uint64_t, 'q', int64_t>,
                                               scalarOf<float, 'f'>,
                                               scalarOf<double, 'd'>,
                                               hostBoolean};
  return all[input.below(std::size(all))](input);
}

HostMade hostArray(fuzz::Input& input, unsigned depth) {
  constexpr struct {
    int32_t code;
    HostMade (*element)(fuzz::Input&); // null: any value
  } known[] = {{2, scalarOf<int32_t, 'l'>},
               {3, scalarOf<int64_t, 'q'>},
               {4, scalarOf<float, 'f'>},
               {5, scalarOf<double, 'd'>},
               {7, lateDate},
               {8, readableText},
               {9, nullptr},
               {11, hostBoolean}};
  std::vector<host::Value> elements;
  std::vector<Line> lines;
  unsigned count = input.below(6);
  int32_t code = input.below(13);
  auto row = std::find_if(std::begin(known), std::end(known),
                          [&](auto& each) { return each.code == code; });
  bool isKnown = row != std::end(known);
  for (unsigned i = 0; i < count; ++i) {
    HostMade made = isKnown && row->element ? row->element(input) : makeInHost(input, depth + 1);
    elements.push_back(isKnown ? made.value : host::Value(host::variant(made.value)));
    lines.push_back(made.there);
  }
  host::Object array = host::array(code, elements);
  Line line = isKnown ? cocoaList(lines) : Line("nil");
  if (input.byte() == 1) {
    host::setReportedBound(array, static_cast<int32_t>(input.byte()) - 2);
    tree->mayRaise = true;
    line = {};
  }
  return {array, line};
}

host::Object hostDictionary(fuzz::Input& input, unsigned depth, Line& line) {
  host::Object dictionary = host::dictionary();
  std::vector<std::pair<Line, Line>> lines;
  unsigned count = input.below(8);
  bool anyKeys = count == 7;
  for (unsigned i = 0; i < count; ++i) {
    std::string name = "k" + std::to_string(i);
    HostMade key{host::Value(name), "text " + hex(name)};
    if (anyKeys) {
      tree->hasAnyKeys = true;
      key = makeInHost(input, depth + 1);
      if (key.there && *key.there == raising) tree->mayRaise = true;
      key.there = {};
    }
    HostMade value = makeInHost(input, depth + 1);
    host::put(dictionary, key.value, value.value);
    lines.push_back({key.there, value.there});
  }
  line = cocoaEntries(lines);
  switch (input.byte()) {
  case 1:
    host::setReportedCount(dictionary, static_cast<int32_t>(input.byte()) - 2);
    line = {};
    break;
  case 2:
    host::put(dictionary, "itself", dictionary);
    tree->hostCycles.push_back(dictionary);
    tree->tooDeep = true;
    line = {};
    break;
  case 3:
    // Emptied while it is walked.
    host::onRead(dictionary,
                 [handle = dictionary.handle()] { host::clear(host::Object::lock(handle)); });
    tree->mayRaise = true;
    line = {};
    break;
  case 4:
    host::lackMethod(dictionary, "Value(key As Variant) As Variant");
    line = {};
    break;
  case 5:
    host::lackMethod(dictionary, "Key(index As Integer) As Variant");
    line = count ? Line("{}") : line;
    break;
  default:
    break;
  }
  return dictionary;
}

HostMade wrapperInstance(fuzz::Input& input) {
  constexpr const char* names[] = {
      "NSRectKVZ",   "NSSizeKVZ",    "NSPointKVZ",    "NSRangeKVZ",       "NSObjectKVZ",
      "CFObjectKVZ", "NSErrorKVZ",   "NSPathCellKVZ", "QTKitTimeKVZ",     "CMTimeKVZ",
      "CGImageKVZ",  "SUAppcastKVZ", "SUUpdaterKVZ",  "RuntimeException", "NSExceptionKVZ"};
  const char* name = names[input.below(std::size(names))];
  host::Object instance = host::create(name);
  if (const fuzz::StructClass* type = fuzz::structClass(name)) {
    auto content = input.number<NSRect>();
    memcpy(host::data(instance), &content, type->size);
    return {instance, type->cocoaType + fuzz::structLine(*type, &content)};
  }
  tree->mayRaise = true; // those that hold nothing give nil
  return {instance, {}};
}

HostMade makeInHost(fuzz::Input& input, unsigned depth) {
  if (full(depth)) return {nullptr, "nil"};
  switch (input.below(14)) {
  case 0:
    return {nullptr, "nil"};
  case 1:
  case 2:
  case 3:
    return readableText(input);
  case 4:
  case 5:
    return hostScalarValue(input);
  case 6: {
    // Below zero, and far beyond a year, GNUstep counts for seconds.
    host::DateFields fields{input.number<int16_t>(),
                            input.byte(),
                            input.byte(),
                            input.byte(),
                            input.byte(),
                            input.byte()};
    if (input.byte() == 1) fields.day = input.number<uint16_t>();
    tree->mayRaise = true;
    return {host::date(fields), {}};
  }
  case 7: {
    std::string_view bytes = input.bytes(input.below(20));
    host::Object block = host::memoryBlock(bytes);
    if (input.byte() != 1) return {block, "bytes " + hex(bytes)};
    host::setReportedSize(block, -1);
    return {block, "nil"};
  }
  case 8: {
    tree->mayRaise = true;
    host::Value content = hostScalarValue(input).value;
    if (input.byte() & 1) content = hostText(input).value;
    // No arrays: what an array is, hosts know.
    return {host::variantOfCode(input.number<int16_t>() & 0x1F, content), {}};
  }
  case 9: {
    tree->mayRaise = true;
    std::string path(input.bytes(input.below(40)));
    std::replace(path.begin(), path.end(), '\0', '0');
    return {host::folderItem("/" + path), {}};
  }
  case 10:
    return wrapperInstance(input);
  case 11: {
    Line line;
    host::Object dictionary = hostDictionary(input, depth, line);
    return {dictionary, line};
  }
  case 12: {
    HostMade core = makeInHost(input, depth + 1);
    unsigned levels = takeLevels(input);
    std::string open(levels, '['), close;
    for (unsigned i = 0; i < levels; ++i) {
      core.value = host::array(9, {core.value});
      close += ",]";
    }
    if (core.there && *core.there == "nil" && levels) core.there = raising;
    if (core.there && *core.there != raising) core.there = open + *core.there + close;
    return core;
  }
  default:
    return hostArray(input, depth);
  }
}

// ---- Once through the plug-in

host::Object answered;

// What the framework gets when the program answers these; the exception that ends the callback
// leaves the array and the element at hand locked, as it is meant to.
NSArray* feed(const std::vector<host::Value>& elements, bool& raised) {
  std::vector<int> held;
  for (const host::Value& element : elements)
    held.push_back(host::referenceCount(element.as<host::Object>()));
  host::Object array = host::array(9, elements);
  answered = array;
  int lines = fuzz::logLines();
  host::Object updater = host::construct("Program", "Constructor");
  NSArray* answer =
      [static_cast<id<Delegate>>([fuzz::handleOf(updater) delegate]) feedParametersForUpdater:nil
                                                                         sendingSystemProfile:NO];
  answered = nullptr;
  int references = host::referenceCount(array);
  raised = references == 2;
  fuzz::require(references == 1 || (raised && fuzz::logLines() > lines),
                "the array's references changed");
  if (raised) host::Object::adopt(array.handle()).reset();
  array.reset();
  int lost = 0;
  for (size_t i = 0; i < elements.size(); ++i) {
    auto element = elements[i].as<host::Object>();
    while (element && host::referenceCount(element) > held[i] && raised && lost++ == 0)
      host::Object::adopt(element.handle()).reset();
  }
  return answer;
}

void compare(const Line& expected, const std::string& found, const char* where) {
  if (expected && *expected != found)
    fuzz::fail(std::string(where) + " this arrived:\n" + found + "\ninstead of\n" + *expected);
}

void checkFed(const std::vector<host::Value>& elements, const std::vector<Line>& lines) {
  bool raised = false;
  NSArray* answer = feed(elements, raised);
  // A key is copied, and GNUstep's copy of a dictionary does not find the entry of a NaN: it
  // raises, and loses what it had copied.
  if (tree->hasNaN && tree->hasAnyKeys) fuzz::expectCocoaLosses();
  bool certain = !tree->mayRaise && !tree->tooDeep && !tree->mayBeTooDeep;
  Line expected = cocoaList(lines);
  if (!certain || !expected) return;
  fuzz::require(raised == (*expected == raising),
                raised ? "the conversion raised" : "the conversion did not raise");
  if (!raised) compare(expected, cocoaLine(answer), "in the framework");
}

void fromCocoa(fuzz::Input& input) {
  Made made = entries(input, 0);
  PlayedItem* played = [[PlayedItem new] autorelease];
  played->properties = made.object;
  host::Object item = fuzz::instanceOf("SUAppcastItemKVZ", played);
  host::Object result;
  host::Thrown thrown = host::catching(
      [&] { result = host::get<host::Object>(item, "propertiesDictionary as dictionary"); });
  bool ended = bool(thrown) || host::takeException();
  fuzz::require(!ended || tree->mayRaise, "the conversion threw");
  fuzz::require(!ended || !result, "the conversion threw and answered");
  if (ended) return;
  fuzz::require(!tree->tooDeep || tree->mayRaise || !result, "what has no end arrived");
  if (!result) return fuzz::require(tree->tooDeep || tree->mayBeTooDeep, "nothing arrived");
  compare(made.there, hostLine(result), "in the host");
  checkFed({result}, {made.back});
}

void fromHost(fuzz::Input& input) {
  std::vector<host::Value> elements;
  std::vector<Line> lines;
  for (unsigned n = 1 + input.below(3); n > 0; --n) {
    Line line;
    elements.push_back(hostDictionary(input, 0, line));
    lines.push_back(line);
  }
  checkFed(elements, lines);
}

constexpr const char* readers[] = {"VariantToString", "VariantToInt32",
                                   "VariantToInt64",  "VariantToSingle",
                                   "VariantToDouble", "VarType(value As Variant) As Int32"};

void run(fuzz::Input& input) {
  Tree now;
  tree = &now;
  bool inCocoa = input.byte() & 1;
  // What an operation does not read, a property does.
  unsigned missing = input.byte();
  for (size_t i = 0; i < std::size(readers); ++i)
    missing & 1u << i ? host::makeAbsent(readers[i]) : host::makePresent(readers[i]);
  inCocoa ? fromCocoa(input) : fromHost(input);
  earlier.clear();
  for (id collection : now.cycles) {
    [collection removeAllObjects];
    [collection release];
  }
  for (const host::Object& dictionary : now.hostCycles) host::clear(dictionary);
  tree = nullptr;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::start({});
  [NSTimeZone setDefaultTimeZone:[NSTimeZone timeZoneForSecondsFromGMT:0]];
  fuzz::require(fuzz::loadFakeFramework(), "the framework's part cannot be played");
  host::subclass("Program", "SUUpdaterKVZ",
                 {{"feedParametersForUpdater(sendingProfile as boolean) as dictionary()",
                   [](host::Event&) { return host::Value(answered); }}});
  fuzz::remember();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  return fuzz::execute(data, size, run);
}
