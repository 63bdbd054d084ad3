// The floors: what an operation of the plug-in cannot do without, written out by hand.
//
// Each function here stands beside one member or callback of the plug-in. It makes the same calls
// of the host and sends the same Cocoa messages, in the same order, inside the same exception
// frame, and does nothing else: no rule is looked for, nothing is resolved on first use, nothing is
// given back after a throw. What it needs (addresses, selectors, classes, names) stands ready
// before it is called.
//
// The functions are called as the plug-in's own are, through the border of testbed/cocoa, with the
// arguments of the member that they stand beside. They take from the plug-in the declarations of
// Apple's interface alone.
#pragma once

#include <cstdint>

namespace floors {

// The classes whose rules convert a Cocoa object, as far as they are loaded, in their order.
inline constexpr const char* ruleClasses[] = {
    "NSArray",
    "NSSet",
    "NSString",
    "NSData",
    "NSNumber",
    "NSDate",
    "NSDictionary",
    "NSAttributedString",
    "NSCalendar",
    "NSError",
    "NSRunningApplication",
    "NSFont",
    "NSFileHandle",
    "NSCharacterSet",
    "NSLocale",
    "NSTimer",
    "NSTimeZone",
    "NSParagraphStyle",
    "NSURL",
    "KVZREALobjectWrapper",
    "NSValue",
};
inline constexpr int kRuleClasses = sizeof ruleClasses / sizeof *ruleClasses;

} // namespace floors

extern "C" {

struct FloorFacts {
  void* (*resolver)(const char* name);
  uint32_t recordOffset;        // from an instance's handle to its record
  uint32_t notFoundEvent;       // the host's words of three of the updater's events
  uint32_t foundEvent;          //
  uint32_t feedEvent;           //
  void* target;                 // the instance whose events the callbacks raise
  void* const* classReferences; // the host's, in the order in which objects are tested
  unsigned classReferenceCount; //
  void* const* classRecords;    // the definitions that were registered, in their order
  unsigned classRecordCount;    //
};

// Before all others; again when a fact has changed. The facts must live on. Inside the border.
void floorStart(const FloorFacts* facts);

// By name, or null. A name is that of the operation's row where there is but one such function.
void* floorFunction(const char* name);

// What the next calls are to know: the wrapper classes that the host is asked for, ending in null,
// and how many class references are tested.
void floorExpect(const char* const* wrapperNames, unsigned classTests);

// A new Cocoa object with the main-thread halves of the reporting callbacks. Inside the border.
void* floorDelegate();
}
