// Cocoa classes that play the framework. What they answer is fixed, so that a scenario can say what
// it expects; how they answer is up to each object.
#pragma once

#include "tests/support/plugin_objects.h"

#import <Foundation/Foundation.h>

#include "testbed/host/host.h"

typedef enum {
  PlayedAnswers, // as the texts below say
  PlayedNothing,
  PlayedRaises, // an NSException named "Refused"
} Behaviour;

@interface Played : NSObject {
@public
  Behaviour behaviour;
}
+ (id)played;                        // autoreleased
+ (id)playedSo:(Behaviour)behaviour; // likewise
@end

@interface PlayedItem : Played {
@public
  id properties; // not retained; what propertiesDictionary answers
}
@end

@interface PlayedAppcast : Played {
@public
  NSString* userAgent;
  NSArray* items;
  NSURL* fetched; // all three owned
}
@end

@interface PlayedUpdater : Played {
@public
  id delegate; // not retained
  NSURL* feed; // owned
  BOOL checks, profile, downloads;
  double interval;
  int actions;
}
// What the class answers to sharedUpdater and updaterForBundle:, with a reference for the plug-in,
// which releases what it never retained. Not retained here.
+ (void)offer:(PlayedUpdater*)updater;
@end

// A dictionary of one entry under "value", which may be nil. Not retained.
@interface OneEntry : NSObject {
@public
  id value;
}
@end

@interface PlayedInvocation : NSObject {
@public
  int invoked;
}
@end

namespace played {

// Texts that the played objects answer, for comparisons.
extern const char* const longText;
extern NSString* const longString;
NSDate* date(); // 2021-03-07 09:05:30 UTC

// Makes the plug-in load a framework of the played classes.
void loadFramework();

// A step: an instance whose Handle is the object, on which it gets a reference of its own.
host::Object wrapping(const char* className, id object);

} // namespace played
