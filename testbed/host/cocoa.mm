// The little of the host that is Cocoa: the run loop, pools, caught throws, and strings handed out.
// No C++ exception is caught here: Objective-C's personality does not know them.
#include "internal.h"

#import <Foundation/Foundation.h>

extern "C" void* CFStringCreateWithCharacters(const void* allocator, const uint16_t* units,
                                              long count);

namespace host {

void prepareCocoa() {
  static bool done = false;
  if (done) return;
  done = true;
  // The bottom pool stays: what a test leaves behind lives until the process ends.
  [[NSAutoreleasePool alloc] init];
  // Before the first worker thread, so that this is the main one.
  [NSThread currentThread];
}

Pool::Pool() : pool_([[NSAutoreleasePool alloc] init]) {}
Pool::~Pool() { [static_cast<NSAutoreleasePool*>(pool_) release]; }

void* makeCocoaString(const uint16_t* units, size_t count) {
  NSString* string = [[NSString alloc] initWithCharacters:units length:count];
  if ([string length] == count) return string;
  [string release];
  // GNUstep refuses lone surrogates, and takes a byte order mark off. Apple's function does not; it
  // is the last resort here, since tests count and disturb its calls as the plug-in's.
  return CFStringCreateWithCharacters(nullptr, units, long(count));
}

void* catchThrow(void (*body)(void*), void* context) {
  @try {
    body(context);
  } @catch (id thrown) {
    return [thrown retain];
  }
  return nullptr;
}

void throwNatively(void* object) { @throw [static_cast<id>(object) autorelease]; }

void autorelease(void* object) { [static_cast<id>(object) autorelease]; }

std::pair<std::string, std::string> describeCocoa(void* object) {
  id thrown = static_cast<id>(object);
  std::string name = [NSStringFromClass([thrown class]) UTF8String];
  const char* text = [[thrown description] UTF8String];
  return {name, text ? text : ""};
}

bool runUntil(const std::function<bool()>& done, double seconds) {
  if (!onMainThread()) throw Error("runUntil turns the main run loop; call it on the main thread");
  NSTimeInterval end = [NSDate timeIntervalSinceReferenceDate] + seconds;
  while (!done()) {
    if ([NSDate timeIntervalSinceReferenceDate] >= end) return false;
    NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
    // A short limit, since DONE may become true without an event; without any source the run loop
    // returns at once, and would spin.
    NSDate* limit = [NSDate dateWithTimeIntervalSinceNow:0.005];
    if (![[NSRunLoop currentRunLoop] runMode:NSDefaultRunLoopMode beforeDate:limit])
      [NSThread sleepUntilDate:limit];
    [pool release];
  }
  return true;
}

} // namespace host
