// The update framework's folder and its broken neighbours. Each of these runs in a process that has
// not loaded anything.
#import "sparkle_fixture.h"

#include <objc/runtime.h>

namespace {
NSBundle* framework(const std::string& name) {
  return [NSBundle bundleWithPath:nsstring(SPARKLE_FRAMEWORKS "/" + name + ".framework")];
}
} // namespace

TEST(SparkleFolder, OffersItsClassesAndTheProtocol) {
  @autoreleasepool {
    EXPECT_EQ(objc_getProtocol("SUVersionComparison"), nullptr);
    NSBundle* bundle = framework("Sparkle");
    ASSERT_TRUE([bundle load]);
    EXPECT_TRUE([bundle classNamed:@"SUUpdater"]);
    EXPECT_TRUE([bundle classNamed:@"SUAppcast"]);
    EXPECT_TRUE([bundle classNamed:@"SUAppcastItem"]);
    Protocol* protocol = objc_getProtocol("SUVersionComparison");
    ASSERT_NE(protocol, nullptr);
    SEL selector = @selector(compareVersion:toVersion:);
    EXPECT_STREQ(protocol_getMethodDescription(protocol, selector, YES, YES).types, "i16@0:4@8@12");
  }
}

TEST(SparkleFolder, WithoutItemClassStillOffersTheUpdater) {
  @autoreleasepool {
    NSBundle* bundle = framework("WithoutItem");
    ASSERT_TRUE([bundle load]);
    EXPECT_TRUE([bundle classNamed:@"SUUpdater"]);
    EXPECT_TRUE([bundle classNamed:@"SUAppcast"]);
    EXPECT_FALSE([bundle classNamed:@"SUAppcastItem"]);
  }
}

TEST(SparkleFolder, WithoutClassesLoads) {
  @autoreleasepool {
    NSBundle* bundle = framework("WithoutClasses");
    EXPECT_TRUE([bundle load]);
    EXPECT_FALSE([bundle classNamed:@"SUUpdater"]);
  }
}

TEST(SparkleFolder, RaisingRaisesOnce) {
  @autoreleasepool {
    NSString* name = nil;
    @try {
      [framework("Raising") load];
    } @catch (NSException* exception) {
      name = [exception name];
    }
    EXPECT_EQ(text(name), "SULoadFailed");
    EXPECT_TRUE([framework("Raising") load]);
    EXPECT_FALSE([framework("Raising") classNamed:@"SUUpdater"]);
    EXPECT_TRUE([framework("Sparkle") load]);
  }
}

TEST(SparkleFolder, BrokenDoesNotLoad) {
  @autoreleasepool {
    EXPECT_FALSE([framework("Broken") load]);
  }
}

TEST(SparkleFolder, UnknownVersionEndsTheProcessAndNamesTheKnownOnes) {
  @autoreleasepool {
    setenv("SPARKLE_VERSION", "1.7", 1);
    EXPECT_DEATH([framework("Sparkle") load],
                 "SPARKLE_VERSION is \"1.7\"; it must be 1.5b6, 1.6 or workers");
  }
}
