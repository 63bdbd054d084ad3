// A feed, through the framework's parser to what the host's program sees of it: everything that an
// event conveys is compared with what the framework's own objects hold.
//
// The input: road ('@' a check whose program has every event, 'B' none, 'D' those that report; 'A'
// an appcast that the program fetches itself); what the program answers ('0'); the feed.
//
// The framework is the testbed's, built once more so that the fuzzer sees its branches. It fetches
// from a URL scheme of this program's; nothing goes to the network or to a file.
#include "lines.h"

#import "SUAppcast.h"
#import "SUAppcastItem.h"
#include "steps.h"

#include <objc/runtime.h>

namespace {

using fuzz::require;

constexpr const char* feedURL = "fuzz://feed/appcast.xml";
constexpr const char* programVersion = "1.0"; // Info.plist.in

std::string_view feed;
bool served; // the feed was read to its end

} // namespace

// Answers every request with the feed, in the run loop's next turn.
@interface FeedProtocol : NSURLProtocol
@end
@implementation FeedProtocol
+ (BOOL)canInitWithRequest:(NSURLRequest*)request {
  return [[[request URL] scheme] isEqualToString:@"fuzz"];
}
+ (NSURLRequest*)canonicalRequestForRequest:(NSURLRequest*)request {
  return request;
}
- (void)startLoading {
  [self performSelector:@selector(serve) withObject:nil afterDelay:0];
}
- (void)serve {
  id<NSURLProtocolClient> client = [self client];
  NSURLResponse* response = [[[NSURLResponse alloc] initWithURL:[[self request] URL]
                                                       MIMEType:@"application/xml"
                                          expectedContentLength:static_cast<NSInteger>(feed.size())
                                               textEncodingName:nil] autorelease];
  [client URLProtocol:self
      didReceiveResponse:response
      cacheStoragePolicy:NSURLCacheStorageNotAllowed];
  [client URLProtocol:self didLoadData:[NSData dataWithBytes:feed.data() length:feed.size()]];
  [client URLProtocolDidFinishLoading:self];
  served = true;
}
- (void)stopLoading {
}
@end

namespace {

std::string failure; // of the check
bool ended;          // it has

void turnUntil(const bool& condition) {
  require(host::runUntil([&] { return condition; }, 60), "the framework does not come to an end");
}

// ---- Comparisons

id handleOf(const host::Object& instance) {
  return instance ? reinterpret_cast<id>(host::get<int32_t>(instance, "Handle")) : nil;
}

// What becomes of a value that the framework made of the feed.
std::string expectedLine(id value) {
  if (!value) return "nil";
  if ([value isKindOfClass:[NSString class]]) return fuzz::textInHost(fuzz::unitsOf(value));
  if ([value isKindOfClass:[NSDate class]])
    return fuzz::dateInHost(static_cast<int64_t>([value timeIntervalSince1970]));
  if ([value isKindOfClass:[NSNumber class]])
    return (*[value objCType] == 'q' ? "Int64ToVariant " : "Int32ToVariant ") +
           std::to_string([value longLongValue]);
  if ([value isKindOfClass:[NSArray class]]) {
    std::string line = "[";
    for (id element in value) line += expectedLine(element) + ",";
    return line + "]";
  }
  require([value isKindOfClass:[NSDictionary class]], "the framework made another kind of value");
  std::vector<std::string> entries;
  for (id key in value)
    entries.push_back(expectedLine(key) + "=" + expectedLine([value objectForKey:key]));
  return fuzz::sortedEntries(entries);
}

void compare(const char* what, const std::string& found, const std::string& expected) {
  if (found != expected)
    fuzz::fail(std::string(what) + " arrived as\n" + found + "\ninstead of\n" + expected);
}

std::string textLine(const std::optional<std::string>& text) {
  return text ? "StringToVariant text " + fuzz::hex(*text) : "StringToVariant no text";
}

void compareText(const char* what, const host::Value& found, NSString* expected) {
  compare(what, textLine(found.as<std::optional<std::string>>()),
          fuzz::textInHost(expected ? fuzz::unitsOf(expected) : u""));
}

void checkItem(const host::Object& instance, SUAppcastItem* item) {
  require(handleOf(instance) == item, "an instance stands for another item");
  struct {
    const char* declaration;
    NSString* text;
  } const texts[] = {
      {"title as string", [item title]},
      {"versionString as string", [item versionString]},
      {"displayVersionString as string", [item displayVersionString]},
      {"itemDescription as string", [item itemDescription]},
      {"releaseNotesURL as string", [[item releaseNotesURL] absoluteString]},
      {"fileURL as string", [[item fileURL] absoluteString]},
      {"DSASignature as string", [item DSASignature]},
      {"minimumSystemVersion as string", [item minimumSystemVersion]},
  };
  for (auto& [declaration, text] : texts)
    compareText(declaration, host::getValue(instance, declaration), text);
  compare("the date", fuzz::hostLine(host::get<host::Object>(instance, "date as date")),
          expectedLine([item date]));
  compare("the properties",
          fuzz::hostLine(host::get<host::Object>(instance, "propertiesDictionary as dictionary")),
          expectedLine([item propertiesDictionary]));
}

std::vector<host::Object> itemsOf(const host::Object& appcast) {
  std::vector<host::Object> items;
  for (const host::Value& element :
       host::elements(host::get<host::Object>(appcast, "items as SUAppcastItemKVZ()")))
    items.push_back(element.as<host::Object>());
  return items;
}

void checkAppcast(const host::Object& instance) {
  SUAppcast* appcast = handleOf(instance);
  require([appcast isKindOfClass:objc_getClass("SUAppcast")], "this is no appcast");
  std::vector<host::Object> items = itemsOf(instance);
  require(items.size() == [[appcast items] count], "items were lost");
  for (size_t i = 0; i < items.size(); ++i) checkItem(items[i], [[appcast items] objectAtIndex:i]);
  require(itemsOf(instance) == items, "the items are other instances now");
  compareText("the user agent", host::getValue(instance, "UserAgentString as string"),
              [appcast valueForKey:@"userAgentString"]);
  auto block = host::get<host::Object>(instance, "incrementalData as memoryblock");
  require((block ? host::memoryBlockBytes(block) : "") == feed, "the feed's bytes changed");
}

// ---- The program

struct Run {
  unsigned choice = 0; // item, then order
  int loaded = 0, found = 0, notFound = 0, chosen = 0, compared = 0;
  host::Object item;       // that the program chose
  host::Object comparison; // that it compares with
  int32_t order() const { return int32_t(choice / 8 % 3) - 1; }
};
Run* now;

void loaded(host::Event& event) {
  ++now->loaded;
  checkAppcast(event[0]);
}

void found(host::Event& event) {
  ++now->found;
  SUAppcastItem* item = handleOf(event[0]);
  require([item versionString] != nil, "an item without a version was found");
  require(!now->chosen || item == handleOf(now->item), "another item was found than was chosen");
  checkItem(event[0], item);
}

void notFound(host::Event&) { ++now->notFound; }

host::Value choose(host::Event& event) {
  ++now->chosen;
  require(now->loaded == 1, "the choice came before the appcast");
  checkAppcast(event[0]);
  std::vector<host::Object> items = itemsOf(event[0]);
  host::Object answer;
  if (unsigned index = now->choice % 8; index < items.size())
    answer = items[index];
  else if (index == 7)
    answer = host::create("SUAppcastItemKVZ");
  now->item = answer;
  return answer;
}

host::Value comparator(host::Event&) {
  if (now->choice / 24 % 2) return nullptr;
  now->comparison = host::construct("Comparison", "Constructor");
  return now->comparison;
}

int32_t compareVersions(host::Event& event) {
  ++now->compared;
  require(event.text(0) == programVersion, "this is not the program's version");
  compareText("the version", event.value(1), [handleOf(now->item) versionString]);
  return now->order();
}

host::Value parameters(host::Event&) {
  return host::array(
      9, {host::dictionary({{"key", "name"}, {"value", "\xC3\xA4 & b"}}), host::dictionary()});
}

void check(const char* program) {
  host::Object updater = host::construct(program, "Constructor");
  // One updater for a bundle lives as long as the process; each instance uses up a reference.
  require([handleOf(updater) retain] != nil, "there is no updater");
  host::set(updater, "feedURL as string", feedURL);
  host::call(updater, "checkForUpdateInformation");
  turnUntil(ended);
  require(!host::get<bool>(updater, "updateInProgress as boolean"), "the check has no end");
  require(failure.empty() || failure == "xml", "the framework ended with " + failure);
  if (!strcmp(program, "Silent")) return;
  require(now->loaded == (failure == "xml" ? 0 : 1), "the appcast's event did not come");
  require(now->found + now->notFound == now->loaded, "the check's end was not told");
  if (strcmp(program, "Program") || !failure.empty()) return;
  require(now->chosen == 1, "the program was not asked");
  SUAppcastItem* item = handleOf(now->item);
  bool asked = item && now->comparison;
  require(now->compared == asked, "the program's comparison was not asked");
  if (asked && !([item minimumSystemVersion] && now->order() < 0))
    require(now->found == (now->order() < 0), "the program's comparison did not count");
}

void fetch() {
  host::Object appcast = host::construct("SUAppcastKVZ", "Constructor");
  host::set(appcast, "UserAgentString as string", "Program/1.0 \xE2\x82\xAC");
  host::call(appcast, "fetchAppcastFromURL(url as string)", feedURL);
  turnUntil(served);
  checkAppcast(appcast);
}

void run(fuzz::Input& input) {
  Run one;
  now = &one;
  failure.clear();
  ended = served = false;
  unsigned road = input.byte();
  one.choice = input.byte();
  feed = input.rest();
  if (road & 1)
    fetch();
  else
    check(road & 2 ? "Silent" : road & 4 ? "Reported" : "Program");
  now = nullptr;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  setenv("SPARKLE_HOST_BUNDLE", PROGRAM_BUNDLE, 1);
  fuzz::start({});
  [NSTimeZone setDefaultTimeZone:[NSTimeZone timeZoneForSecondsFromGMT:0]];
  require(fuzz::loadFrameworkFolder("Fuzzed"), "the framework cannot be loaded");
  [NSURLProtocol registerClass:[FeedProtocol class]];
  steps::watch([](const steps::Step& step) {
    if (!step.failure.empty()) failure = step.failure;
    if (step.is("finished") || step.is("failed")) ended = true;
  });

  const host::Handlers reports = {
      {"didFinishLoadingAppcast(update as SUAppcastKVZ)", loaded},
      {"didFindValidUpdate(update as SUAppcastItemKVZ)", found},
      {"updaterDidNotFindUpdate", notFound},
  };
  host::subclass("Silent", "SUUpdaterKVZ");
  host::subclass("Reported", "SUUpdaterKVZ", reports);
  host::subclass("Program", "SUUpdaterKVZ", reports);
  host::handle("Program", "bestValidUpdateInAppcast(appcast as SUAppcastKVZ) as SUAppcastItemKVZ",
               choose);
  host::handle("Program", "versionComparatorForUpdater as SUVersionComparisonKVZ", comparator);
  host::handle("Program", "feedParametersForUpdater(sendingProfile as boolean) as dictionary()",
               parameters);
  host::subclass(
      "Comparison", "SUVersionComparisonKVZ",
      {{"compareVersion(VersionA as string, VersionB as string) as integer", compareVersions}});
  fuzz::remember();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  return fuzz::execute(data, size, run);
}
