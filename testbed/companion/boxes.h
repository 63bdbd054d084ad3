// KVZREALobjectWrapper: a host object inside a Cocoa object.
//
// A box holds one lock on its host object from +wrap: to -dealloc, which may happen on any thread.
#pragma once

#include "operations.h"

#import <Foundation/Foundation.h>

@interface CompanionBox : NSObject {
  companion::HostObject* _object;
}
// An autoreleased box; nil for null.
+ (id)wrap:(companion::HostObject*)object;
// The host object, locked once more: that reference is the caller's, who unlocks it.
- (companion::HostObject*)unwrap;
@end

namespace companion {

// Makes the class "KVZREALobjectWrapper" known to the Objective-C runtime.
void registerBoxClass();

uint32_t liveBoxes();

} // namespace companion
