// Values as Mac OS X hands them out, where GNUstep's own would differ: what testbed/cocoa makes
// good reaches the host.

#include "conversion.h"

#include "testbed/cocoa/typeids.h"

#include <fstream>
#include <gmock/gmock.h>

using conversion::cocoaClass;
using conversion::described;
using conversion::toHost;
using conversion::wrapped;

namespace {

// With TESTBED_CFTYPEID=none objects are as in GNUstep, and plain ones are wrapped by their class.
bool untyped() { return getenv("TESTBED_CFTYPEID"); }

class MacValues : public session::Test {};
INSTANTIATE_TEST_SUITE_P(Hosts, MacValues, session::everyInterface(), session::hostName);

TEST_P(MacValues, APlainObjectIsACoreFoundationObjectBeforeItIsOneOfItsClass) {
  start();
  host::defineClass("NSStrangerKVZ", "NSObjectKVZ");
  id stranger = [[cocoaClass("NSStranger") new] autorelease];
  NSUInteger before = [stranger retainCount];
  host::Object wrapper = toHost(stranger);
  EXPECT_EQ(host::className(wrapper), untyped() ? "NSStrangerKVZ" : "CFObjectKVZ");
  EXPECT_EQ(wrapped(wrapper), stranger);
  EXPECT_EQ([stranger retainCount], before + 1);
  wrapper.reset();
  EXPECT_EQ([stranger retainCount], before);
}

TEST_P(MacValues, WithoutAWrapperForCoreFoundationAPlainObjectGivesNull) {
  start();
  host::hideClass("CFObjectKVZ");
  id plain = [[NSObject new] autorelease];
  EXPECT_EQ(host::className(toHost(plain)), untyped() ? "NSObjectKVZ" : "nil");
}

TEST_P(MacValues, AnObjectThatAnswersZeroIsWrappedByItsClass) {
  start();
  Class type = cocoaClass("NSStranger");
  typeids_deny(type);
  EXPECT_EQ(host::className(toHost([[type new] autorelease])), "NSObjectKVZ");
}

TEST_P(MacValues, ObjectsWithARuleOfTheirOwnKeepIt) {
  start();
  EXPECT_EQ(described(@"text"), "\"text\"");
  EXPECT_EQ(described([NSArray arrayWithObject:@"a"]), "[\"a\"]");
  NSError* error = [NSError errorWithDomain:@"d" code:1 userInfo:nil];
  EXPECT_EQ(host::className(toHost(error)), "NSErrorKVZ");
  id styled = [[[NSAttributedString alloc] initWithString:@"styled"] autorelease];
  EXPECT_EQ(host::className(toHost(styled)), "NSAttributedStringKVZ");
  NSValue* size = [NSValue valueWithSize:NSMakeSize(1, 2)];
  EXPECT_EQ(host::className(toHost(size)), "NSSizeKVZ");
}

TEST_P(MacValues, NumbersArriveAsTheTypeThatWasKept) {
  start();
  const std::pair<NSNumber*, const char*> cases[] = {
      {[NSNumber numberWithBool:YES], "Boolean true"},
      {[NSNumber numberWithChar:65], "Boolean true"},
      {[NSNumber numberWithUnsignedChar:255], "Int32 255"},
      {[NSNumber numberWithShort:-1], "Int32 -1"},
      {[NSNumber numberWithUnsignedShort:65535], "Int32 65535"},
      {[NSNumber numberWithInt:-1], "Int32 -1"},
      {[NSNumber numberWithUnsignedInt:1], "Int64 1"},
      {[NSNumber numberWithUnsignedInteger:1], "Int64 1"},
      {[NSNumber numberWithLong:-1], "Int32 -1"},
      {[NSNumber numberWithUnsignedLong:UINT32_MAX], "Int64 4294967295"},
      {[NSNumber numberWithLongLong:-1], "Int64 -1"},
      {[NSNumber numberWithUnsignedLongLong:(1ull << 32) + 5], "Int64 4294967301"},
      {[NSNumber numberWithUnsignedLongLong:INT64_MAX], "Int64 9223372036854775807"},
      // The only unsigned ones left, of which 32 bits are carried.
      {[NSNumber numberWithUnsignedLongLong:(1ull << 63) + 5], "UInt64 5"},
  };
  for (auto& [number, expected] : cases) EXPECT_EQ(described(number), expected);
}

NSURL* url(const std::string& text) {
  return [NSURL URLWithString:[NSString stringWithUTF8String:text.c_str()]];
}

TEST_P(MacValues, AURLWithoutASchemeIsAFile) {
  start();
  std::string path = session::folder() + "/existing";
  std::ofstream(path) << "content";
  EXPECT_EQ(described(url(path)), "FolderItem \"" + path + "\"");
  std::string missing = session::folder() + "/missing";
  EXPECT_EQ(described(url(missing)), "FolderItem \"" + missing + "\"");
  EXPECT_EQ(described(url("/no/such/folder/file")), "\"/no/such/folder/file\"");
  EXPECT_EQ(described(url("page.html")), "\"page.html\"");
}

} // namespace
