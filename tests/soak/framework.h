// A framework whose checks take no time: each check, and each continued relaunch, is a thread of
// its own that makes every callback of the real one in its order, and then wakes the main thread.
//
// Ownership: as the real one, an updater is handed out unretained and released by the plug-in that
// took it; so each is made with a reference for the plug-in. Threads: checks run on theirs,
// everything else belongs on the main thread.
#pragma once

#include "tests/support/plugin_objects.h"

#import <Foundation/Foundation.h>

#include <atomic>
#include <cstdint>

// Each counts how many of it are alive.
@interface SoakItem : NSObject {
@public
  NSString* version;
}
+ (id)itemOfVersion:(NSString*)version; // autoreleased
@end

@interface SoakAppcast : NSObject {
@public
  NSArray* items;
}
+ (id)appcast; // autoreleased, with two items
@end

@interface SoakUpdater : NSObject {
@public
  id<Delegate> delegate; // not retained
  NSURL* feed;
  std::atomic<bool> postponed, ended;
}
@end

namespace soak {

// What the callbacks of checks were answered, over all checks.
struct Answers {
  std::atomic<uint64_t> waits{0}; // reporting callbacks that came back
  std::atomic<uint64_t> parameters{0}, best{0}, compared{0}, prompts{0}, postponed{0}, paths{0};
};
extern Answers answers;

int alive(); // items, appcasts and updaters

// The class that the plug-in is to take for the framework's.
Class classNamed(NSString* name);

} // namespace soak
