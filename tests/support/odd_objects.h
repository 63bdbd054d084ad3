// Cocoa objects that a conversion meets: an item around any value, and values that Cocoa has not
// got. For one source file of a program: it defines Objective-C classes.
#pragma once

#import <Foundation/Foundation.h>

// Plays an item of the framework. What it answers is not retained.
@interface PlayedItem : NSObject {
@public
  id properties;
}
@end

@implementation PlayedItem
- (id)propertiesDictionary {
  return properties;
}
@end

// A dictionary of one entry, whose value may be nil.
@interface OneEntry : NSObject {
@public
  id value;
}
@end

@implementation OneEntry
- (NSArray*)allKeys {
  return [NSArray arrayWithObject:@"value"];
}
- (id)objectForKey:(id)key {
  return [key isEqual:@"value"] ? value : nil;
}
@end

// A date that no calendar has.
@interface OddDate : NSDate {
@public
  double seconds;
}
@end

@implementation OddDate
- (id)init {
  return self;
}
- (NSTimeInterval)timeIntervalSinceReferenceDate {
  return seconds;
}
@end

// Two elements, of which the second cannot be had: an exception is raised, or another object
// thrown.
@interface BrittleArray : NSArray {
@public
  id first;
  id thrown;
}
@end

@implementation BrittleArray
- (NSUInteger)count {
  return 2;
}
- (id)objectAtIndex:(NSUInteger)index {
  if (index == 0) return first ?: @"first";
  if (thrown) @throw thrown;
  [NSException raise:@"Brittle" format:@"no element %u", static_cast<unsigned>(index)];
  return nil;
}
@end
