// Core Foundation strings: NSString under CF's names, with CF's strictness about bytes.

#import <Foundation/Foundation.h>

#include "testbed/cocoa/encodings.h"
#include "testbed/cocoa/marks.h"
#include "testbed/cocoa/observe.h"
#include "testbed/cocoa/text.h"

#include <climits>
#include <cstring>
#include <map>
#include <mutex>
#include <string>

// GNUstep refuses to make a string of a lone surrogate; CF does not, so this one holds any units.
@interface TestbedUnitString : NSString {
  unichar* units;
  NSUInteger count;
}
- (instancetype)initWithUnits:(std::u16string_view)given;
@end

@implementation TestbedUnitString
- (instancetype)initWithUnits:(std::u16string_view)given {
  if ((self = [super init])) {
    count = given.size();
    units = static_cast<unichar*>(malloc(count * sizeof *units));
    memcpy(units, given.data(), count * sizeof *units);
  }
  return self;
}
- (void)dealloc {
  free(units);
  [super dealloc];
}
- (NSUInteger)length {
  return count;
}
- (unichar)characterAtIndex:(NSUInteger)index {
  if (index >= count) [NSException raise:NSRangeException format:@"index %u of %u", index, count];
  return units[index];
}
- (void)getCharacters:(unichar*)buffer range:(NSRange)range {
  if (range.location > count || range.length > count - range.location)
    [NSException raise:NSRangeException format:@"range beyond %u units", count];
  memcpy(buffer, units + range.location, range.length * sizeof *units);
}
- (id)copyWithZone:(NSZone*)zone {
  (void)zone;
  return [self retain];
}
@end

namespace {

NSString* make(std::u16string_view units) {
  // GNUstep would take a byte order mark off, and turn what follows round.
  bool marked = !units.empty() && (units[0] == 0xFEFF || units[0] == 0xFFFE);
  if (marked || !encodings::well_formed(units))
    return [[TestbedUnitString alloc] initWithUnits:units];
  return [[NSString alloc] initWithCharacters:reinterpret_cast<const unichar*>(units.data())
                                       length:units.size()];
}

NSString* adopt(std::u16string_view units) { return [make(units) autorelease]; }

void needs(const void* given, const char* function) {
  if (!given) marks::die("%s: a null pointer, which crashes on Mac OS X", function);
}

bool get_c_string(NSString* string, char* buffer, size_t size, uint32_t encoding) {
  if (!size || !encodings::known(encoding)) return false;
  // Room for the terminator, which for UTF-16 has two bytes.
  size_t terminator = encoding == encodings::utf16 ? 2 : 1;
  if (size < terminator) return false;
  encodings::encoder out = {buffer, size - terminator, encoding};
  NSUInteger length = [string length];
  unichar chunk[256];
  bool complete = true;
  for (NSUInteger at = 0; at < length && complete;) {
    NSUInteger count = MIN(length - at, static_cast<NSUInteger>(std::size(chunk)));
    [string getCharacters:chunk range:NSMakeRange(at, count)];
    auto* units = reinterpret_cast<const char16_t*>(chunk);
    // A pair is converted in one piece.
    if (at + count < length && count > 1 && encodings::is_lead(units[count - 1])) --count;
    size_t used;
    complete = out.put({units, count}, used);
    at += used;
  }
  memset(buffer + out.written, 0, terminator);
  return complete;
}

NSString* normalised_text(NSString* text, long form) {
  switch (form) {
  case 0:
    return [text decomposedStringWithCanonicalMapping];
  case 1:
    return [text decomposedStringWithCompatibilityMapping];
  case 2:
    return [text precomposedStringWithCanonicalMapping];
  default:
    return [text precomposedStringWithCompatibilityMapping];
  }
}

// GNUstep normalises nothing that has a lone surrogate in it; CF lets those stand and normalises
// the rest.
NSString* normalised(NSString* string, long form) {
  std::u16string units = text::units_of(string);
  if (encodings::well_formed(units)) return normalised_text(string, form);
  NSMutableString* made = [NSMutableString string];
  for (size_t at = 0; at < units.size();) {
    size_t end = at;
    while (size_t length = encodings::character_at(units, end)) end += length;
    if (end > at) [made appendString:normalised_text(adopt({units.data() + at, end - at}), form)];
    if (end < units.size()) [made appendString:adopt({units.data() + end, 1})];
    at = end + 1;
  }
  return made;
}

// Constant strings live as long as the process, whatever is released.
struct constant_string {
  Class isa;
  const char* bytes;
  unsigned length;
};

} // namespace

extern "C" {
#pragma GCC visibility push(default)

NSString* __CFStringMakeConstantString(const char* bytes) {
  needs(bytes, "__CFStringMakeConstantString");
  static std::mutex lock;
  static auto& made = *new std::map<std::string, constant_string, std::less<>>;
  std::string_view key = bytes;
  std::lock_guard guard(lock);
  auto found = made.find(key);
  if (found == made.end()) {
    for (unsigned char byte : key)
      if (byte >= 0x80) marks::die("__CFStringMakeConstantString: only ASCII, not \"%s\"", bytes);
    found = made.emplace(key, constant_string()).first;
    found->second = {
        [NSConstantString class], found -> first.c_str(), static_cast<unsigned>(key.size())};
  }
  return reinterpret_cast<NSString*>(&found->second);
}

long CFStringGetLength(NSString* string) {
  needs(string, "CFStringGetLength");
  return marks::leave([&] { return static_cast<long>([string length]); });
}

unsigned char CFStringGetCString(NSString* string, char* buffer, long size, uint32_t encoding) {
  needs(string, "CFStringGetCString");
  if (observe::fails("CFStringGetCString")) return false;
  if (size < 0) return false;
  return marks::leave([&] { return get_c_string(string, buffer, size, encoding); });
}

void CFStringGetCharacters(NSString* string, long location, long length, unichar* buffer) {
  needs(string, "CFStringGetCharacters");
  marks::leave([&] {
    [string getCharacters:buffer
                    range:NSMakeRange(static_cast<NSUInteger>(location),
                                      static_cast<NSUInteger>(length))];
  });
}

NSString* CFStringCreateWithCharacters(const void*, const char16_t* units, long count) {
  if (count) needs(units, "CFStringCreateWithCharacters");
  if (count < 0) marks::die("CFStringCreateWithCharacters: %ld units", count);
  if (observe::fails("CFStringCreateWithCharacters")) return nil;
  return marks::leave([&] {
    // Units may stand at any address, as they do in the strings of old hosts.
    std::u16string aligned(static_cast<size_t>(count), u'\0');
    if (count) memcpy(aligned.data(), units, aligned.size() * sizeof(char16_t));
    return make(aligned);
  });
}

NSString* CFStringCreateWithCString(const void*, const char* bytes, uint32_t encoding) {
  needs(bytes, "CFStringCreateWithCString");
  if (observe::fails("CFStringCreateWithCString")) return nil;
  return marks::leave([&]() -> NSString* {
    auto units = encodings::decode(bytes, encoding);
    return units ? make(*units) : nil;
  });
}

NSMutableString* CFStringCreateMutableCopy(const void*, long limit, NSString* string) {
  needs(string, "CFStringCreateMutableCopy");
  if (limit) marks::die("CFStringCreateMutableCopy: a limit (%ld) is not supported", limit);
  if (observe::fails("CFStringCreateMutableCopy")) return nil;
  // GNUstep has no mutableCopy of a lone surrogate, but lets a mutable string take it over.
  return marks::leave([&] {
    NSMutableString* copy = [NSMutableString new];
    [copy setString:string];
    return copy;
  });
}

void CFStringNormalize(NSMutableString* string, long form) {
  needs(string, "CFStringNormalize");
  if (form < 0 || form > 3) marks::die("CFStringNormalize: no form %ld", form);
  marks::leave([&] { [string setString:normalised(string, form)]; });
}

#pragma GCC visibility pop
} // extern "C"
