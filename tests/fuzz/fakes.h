// Cocoa objects that play the framework's part for the fuzz targets. For one source of a program:
// it defines Objective-C classes.
#pragma once

#include "support.h"

#include "tests/support/plugin_objects.h"

// One for the process, as the framework's own. Keeps the delegate without owning it.
@interface FakeUpdater : NSObject {
  id delegate;
}
+ (id)sharedUpdater;
- (id)delegate;
@end

@implementation FakeUpdater
+ (id)sharedUpdater {
  static FakeUpdater* updater;
  if (!updater) updater = [FakeUpdater new];
  // Given back when the instance that asked for it goes.
  return [updater retain];
}
+ (id)updaterForBundle:(NSBundle*)bundle {
  (void)bundle;
  return [self sharedUpdater];
}
- (void)setDelegate:(id)given {
  delegate = given;
}
- (id)delegate {
  return delegate;
}
@end

@interface FakeAppcast : NSObject
@end
@implementation FakeAppcast
@end

@interface FakeItem : NSObject
@end
@implementation FakeItem
@end

namespace fuzz {

inline bool loadFakeFramework() {
  return loadFramework([FakeUpdater class], [FakeAppcast class], [FakeItem class]);
}

inline id handleOf(const host::Object& instance) {
  return reinterpret_cast<id>(host::get<int32_t>(instance, "Handle"));
}

} // namespace fuzz
