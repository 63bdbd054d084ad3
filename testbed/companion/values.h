// The methods that NSValue gets for QuickTime and Core Media times, both directions.
//
// The reading methods (QTTimeValueKVZ …) answer a new host object of the struct wrapper class,
// locked for the caller; null when the value holds another struct, or the host lacks the class. The
// making methods (valueWithQTTimeKVZ: …) take the host object, since only the plug-in of a class
// knows what is in its instances, and answer an autoreleased NSValue; nil for null.
#pragma once

#include "operations.h"

#import <Foundation/Foundation.h>

@interface CompanionValue : NSValue
- (companion::HostObject*)QTTimeValueKVZ;
- (companion::HostObject*)QTTimeRangeValueKVZ;
- (companion::HostObject*)CMTimeValueKVZ;
- (companion::HostObject*)CMTimeRangeValueKVZ;
- (companion::HostObject*)CMTimeMappingValueKVZ;
+ (NSValue*)valueWithQTTimeKVZ:(companion::HostObject*)object;
+ (NSValue*)valueWithQTTimeRangeKVZ:(companion::HostObject*)object;
+ (NSValue*)valueWithCMTimeKVZ:(companion::HostObject*)object;
+ (NSValue*)valueWithCMTimeRangeKVZ:(companion::HostObject*)object;
+ (NSValue*)valueWithCMTimeMappingKVZ:(companion::HostObject*)object;
@end
