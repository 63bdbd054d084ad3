// What the worked examples of docs/architecture.md add to the plug-in.

#include "fakes.h"

#include "testbed/cocoa/crossing.h"

#import <Foundation/Foundation.h>

extern "C" void CFDictionaryRemoveValue(id dictionary, const void* key);

class Worked : public session::Test {};

@interface NewerItem : NSObject
@end
@implementation NewerItem
- (NSString*)maximumSystemVersion {
  return @"10.8";
}
- (NSDictionary*)propertiesDictionary {
  return [NSDictionary dictionaryWithObject:[NSHost currentHost] forKey:@"host"];
}
@end

static host::Object wrapping(const char* type, id object) {
  host::Object instance = host::create(type);
  host::set(instance, "Handle", int32_t(uintptr_t([object retain])));
  return instance;
}

TEST_P(Worked, AMemberAnswersItsText) {
  start();
  host::Object item = wrapping("SUAppcastItemKVZ", [[NewerItem new] autorelease]);
  EXPECT_EQ(host::get<std::string>(item, "maximumSystemVersion as string"), "10.8");
}

TEST_P(Worked, AnEventIsClaimedAndDelivered) {
  start();
  ASSERT_TRUE(loadFramework());
  int raised = 0;
  host::subclass("Downloading", "SUUpdaterKVZ",
                 {{"willDownloadUpdate(update as SUAppcastItemKVZ)",
                   [&](host::Event& event) { raised += bool(event[0]); }}});
  for (const char* type : {"SUUpdaterKVZ", "Downloading"}) {
    host::Object updater = host::construct(type, "Constructor");
    id framework = (id)uintptr_t(host::get<int32_t>(updater, "Handle"));
    id delegate = [framework performSelector:@selector(delegate)];
    SEL callback = NSSelectorFromString(@"updater:willDownloadUpdate:");
    EXPECT_EQ([delegate respondsToSelector:callback], std::string(type) == "Downloading");
    [delegate performSelector:callback
                   withObject:framework
                   withObject:[[NewerItem new] autorelease]];
  }
  EXPECT_EQ(raised, 1);
}

TEST_P(Worked, AConversionRuleFindsItsWrapperClass) {
  start();
  host::defineClass("NSHostKVZ", "", 16);
  host::Object item = wrapping("SUAppcastItemKVZ", [[NewerItem new] autorelease]);
  auto properties = host::get<host::Object>(item, "propertiesDictionary as dictionary");
  host::Object wrapper = host::at(properties, "host");
  EXPECT_EQ(host::className(wrapper), "NSHostKVZ");
  // Nobody of the family releases what this stand-in for a wrapper class holds.
  CFDictionaryRemoveValue([NSException GetInstancesDictionaryKVZ], [NSHost currentHost]);
}

TEST_P(Worked, AHostOperationAnswersWhatTheHostDoes) {
  start();
  host::Object appcast = host::create("SUAppcastKVZ");
  EXPECT_EQ(host::get<double>(appcast, "hostVersion as double"), host::profile().version);
}

TEST_P(Worked, AHostOperationYieldsZeroWhereTheHostHasNone) {
  start();
  host::makeAbsent("REALGetRBVersion");
  host::Object appcast = host::create("SUAppcastKVZ");
  EXPECT_EQ(host::get<double>(appcast, "hostVersion as double"), 0);
}

INSTANTIATE_TEST_SUITE_P(Hosts, Worked, session::everyInterface(), session::hostName);
