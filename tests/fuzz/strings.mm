// Text both ways, by every way that a host can offer to it, against iconv.
//
// The input: member, ways that are missing, encoding, how often the text is repeated; the text.
#include "fakes.h"
#include "lines.h"

#include <iconv.h>

@interface Texts : NSObject {
@public
  id text;       // what every getter answers
  id received;   // what a setter was given
  bool messaged; // whether one was
}
@end

@implementation Texts
- (id)title {
  return text;
}
- (id)userAgentString {
  return text;
}
- (id)fileURL {
  return self;
}
- (id)absoluteString {
  return text;
}
- (void)setUserAgentString:(id)given {
  messaged = true;
  received = [given retain];
}
- (void)fetchAppcastFromURL:(id)given {
  [self setUserAgentString:given];
}
- (void)dealloc {
  [received release];
  [super dealloc];
}
@end

namespace {

enum Member {
  userAgentSetter,
  relaunchPath,
  appcastURL,
  titleGetter,
  userAgentGetter,
  fileURLGetter,
  comparedVersions,
  memberCount
};

// The operations on the ways of text, one bit each.
constexpr const char* operations[] = {"REALGetStringCFString",   "PluginGetStringData",
                                      "PluginDisposeStringData", "StringGetCString",
                                      "REALGetStringEncoding",   "REALSetStringEncoding",
                                      "REALBuildString",         "LenB( s as string ) as integer"};
enum Way : unsigned {
  cfString = 1,
  stringData = 2,
  disposeStringData = 4,
  cString = 8,
  getEncoding = 16,
  setEncoding = 32,
  buildString = 64,
  lenB = 128
};

struct Encoding {
  uint32_t number;
  const char* iconvName; // null: nobody knows it
  bool byHost = true;    // whether the host can convert it, or Cocoa alone
};
constexpr Encoding encodings[] = {
    {host::utf8, "UTF-8"},         {host::utf16, "UTF-16LE"},
    {host::macRoman, "MACINTOSH"}, {host::unknownEncoding, "MACINTOSH"},
    {host::latin1, "ISO-8859-1"},  {host::ascii, "US-ASCII"},
    {0x0500, "CP1252", false},     {0x0A00, nullptr, false}};

const Encoding& encodingOf(uint32_t number) {
  return *std::find_if(std::begin(encodings), std::end(encodings),
                       [&](const Encoding& encoding) { return encoding.number == number; });
}

// Nothing for what is no text in the encoding.
std::optional<std::string> convert(std::string_view bytes, const char* from, const char* to) {
  iconv_t converter = iconv_open(to, from);
  fuzz::require(converter != iconv_t(-1), "iconv lacks an encoding; is GCONV_PATH set?");
  std::string result(bytes.size() * 4 + 16, '\0');
  char *in = const_cast<char*>(bytes.data()), *out = result.data();
  size_t inLeft = bytes.size(), outLeft = result.size();
  bool whole = iconv(converter, &in, &inLeft, &out, &outLeft) != size_t(-1);
  iconv_close(converter);
  if (!whole) return {};
  result.resize(result.size() - outLeft);
  return result;
}

std::u16string units(std::string_view bytes) {
  std::u16string result(bytes.size() / 2, u'\0');
  memcpy(result.data(), bytes.data(), result.size() * 2);
  return result;
}

std::string hexadecimal(std::u16string_view text) {
  std::string result;
  char digits[8];
  for (char16_t unit : text) {
    snprintf(digits, sizeof digits, "%04x ", unsigned(unit));
    result += digits;
  }
  return result;
}

// What may be said of a text before it is carried.
struct Expected {
  bool certain = false;               // otherwise anything may come, or nothing
  std::optional<std::u16string> text; // nothing: nil
};

// The bytes as text, if they are any.
Expected read(std::string_view bytes, uint32_t encoding) {
  const char* name = encodingOf(encoding).iconvName;
  auto converted = name ? convert(bytes, name, "UTF-16LE") : std::nullopt;
  if (!converted) return {};
  // Two signs of this Mac encoding have got other numbers since iconv's table was made.
  if (!strcmp(name, "MACINTOSH") && bytes.find_first_of("\xC6\xF0") != bytes.npos) return {};
  return {true, units(*converted)};
}

Expected readBy(unsigned ways, std::string_view bytes, uint32_t encoding) {
  if ((ways & cfString) && encodingOf(encoding).byHost) {
    Expected whole = read(bytes, encoding);
    if (whole.certain) return whole;
  }
  double version = host::profile().version;
  if (version > 2013.0 && !(ways & stringData) && !((ways & cString) && (ways & lenB)))
    return {!(ways & cfString), {}};
  if (!(ways & getEncoding)) encoding = host::macRoman;
  // Without a length a text ends at a NUL.
  if (encoding != host::utf16) bytes = bytes.substr(0, bytes.find('\0'));
  Expected stored = read(bytes, encoding);
  // Bytes that the host itself refused to convert may still be read as stored, and differently.
  if (ways & cfString) stored.certain = false;
  return stored;
}

// Once through the plug-in, host to Cocoa.
void intoCocoa(Member member, unsigned ways, std::string_view bytes, uint32_t encoding) {
  host::String text = host::string(bytes, encoding);
  bool messaged = true;
  id received;
  if (member == relaunchPath) {
    host::handle("Program", "pathToRelaunchForUpdater as string",
                 [text](host::Event&) { return host::Value(text); });
    host::Object updater = host::construct("Program", "Constructor");
    received = [[static_cast<id<Delegate>>([fuzz::handleOf(updater) delegate])
        pathToRelaunchForUpdater:nil] retain];
  } else {
    Texts* texts = [[Texts new] autorelease];
    host::Object appcast = fuzz::instanceOf("SUAppcastKVZ", texts);
    if (member == appcastURL)
      host::call(appcast, "fetchAppcastFromURL(url as string)", text);
    else
      host::set(appcast, "UserAgentString as string", text);
    received = [texts->received retain];
    messaged = texts->messaged;
  }
  [received autorelease];
  fuzz::require(messaged, "the text's message was not sent");
  fuzz::require(host::referenceCount(text) == (member == relaunchPath ? 2 : 1),
                "the text's references changed");
  if (member == appcastURL) {
    fuzz::require(!received || [received isKindOfClass:[NSURL class]], "this is no URL");
    return;
  }
  fuzz::require(!received || [received isKindOfClass:[NSString class]], "this is no string");
  Expected expected = readBy(ways, bytes, encoding);
  if (!expected.certain) return;
  if (!expected.text) return fuzz::require(!received, "a text came by no way");
  fuzz::require(received, "the text did not arrive");
  if (fuzz::unitsOf(received) != *expected.text)
    fuzz::fail("another text arrived:\n  " + hexadecimal(fuzz::unitsOf(received)) +
               "\ninstead of\n  " + hexadecimal(*expected.text));
}

void checkInHost(const host::String& text, unsigned ways, std::string_view unitBytes) {
  auto utf8 = convert(unitBytes, "UTF-16LE", "UTF-8");
  std::string expected = utf8.value_or("");
  expected = expected.substr(0, expected.find('\0'));
  if (!utf8 || expected.empty() || !(ways & buildString))
    return fuzz::require(!text, "a text that is none arrived: " + host::bytes(text));
  fuzz::require(bool(text), "the text did not arrive");
  if (host::bytes(text) != expected)
    fuzz::fail("another text arrived: " + host::bytes(text) + "\ninstead of\n" + expected);
  fuzz::require(host::encoding(text) == (ways & setEncoding ? host::utf8 : host::unknownEncoding),
                "the text is in another encoding");
}

// Once through the plug-in, Cocoa to host.
void intoHost(Member member, unsigned ways, std::string_view bytes) {
  AnyString* string = [AnyString stringWithUnits:units(bytes)];
  bytes = bytes.substr(0, bytes.size() / 2 * 2);
  if (member == comparedVersions) {
    int asked = 0;
    host::handle("Comparison", "compareVersion(VersionA as string, VersionB as string) as integer",
                 [&](host::Event& event) {
                   ++asked;
                   checkInHost(event.value(0).as<host::String>(), ways, bytes);
                   checkInHost(event.value(1).as<host::String>(), ways, bytes);
                   return 7;
                 });
    host::Object comparison = host::construct("Comparison", "Constructor");
    int order = [static_cast<id<Comparator>>(fuzz::handleOf(comparison)) compareVersion:string
                                                                              toVersion:string];
    fuzz::require(asked == 1 && order == 7, "the program was not asked");
    return;
  }
  Texts* texts = [[Texts new] autorelease];
  texts->text = string;
  host::Object instance =
      fuzz::instanceOf(member == userAgentGetter ? "SUAppcastKVZ" : "SUAppcastItemKVZ", texts);
  const char* declaration = member == userAgentGetter ? "UserAgentString as string"
                            : member == fileURLGetter ? "fileURL as string"
                                                      : "title as string";
  checkInHost(host::getValue(instance, declaration).as<host::String>(), ways, bytes);
}

void run(fuzz::Input& input) {
  auto member = static_cast<Member>(input.byte() % memberCount);
  unsigned ways = 0xFF & ~input.byte();
  // No host takes back what it never gives: the plug-in would hand it bytes of its own.
  if (!(ways & stringData)) ways &= ~disposeStringData;
  const Encoding& encoding = encodings[input.byte() % std::size(encodings)];
  unsigned times = 1 + input.byte();
  std::string_view piece = input.bytes(64);
  std::string text;
  for (unsigned i = 0; i < times; ++i) text += piece;
  text += input.rest();

  for (size_t i = 0; i < std::size(operations); ++i)
    ways & 1u << i ? host::makePresent(operations[i]) : host::makeAbsent(operations[i]);
  if (member < titleGetter)
    intoCocoa(member, ways, text, encoding.number);
  else
    intoHost(member, ways, text);
  // Handlers hold what the input made.
  host::handle("Program", "pathToRelaunchForUpdater as string", [](host::Event&) { return ""; });
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::start({.companion = false});
  fuzz::require(fuzz::loadFakeFramework(), "the framework's part cannot be played");
  host::subclass("Program", "SUUpdaterKVZ");
  host::subclass("Comparison", "SUVersionComparisonKVZ");
  fuzz::remember();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  return fuzz::execute(data, size, run);
}
