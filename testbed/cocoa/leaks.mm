// What GNUstep never frees, kept out of the leak sanitizer's report at the place where it happens:
// a suppression by name would need names in its stripped library, and one for the library as a
// whole would hide every Cocoa object that the plug-in loses. Without the sanitizer, nothing.

#import <Foundation/Foundation.h>

#include <cstdio>
#include <cstdlib>

extern "C" {
__attribute__((weak)) void __lsan_ignore_object(const void*);
__attribute__((weak)) void __lsan_disable();
__attribute__((weak)) void __lsan_enable();
}

namespace {

// Their +initialize runs again for subclasses and drops what it made the first time; the defaults'
// first path is never released.
void initialiseClasses() {
  [NSBundle class];
  [NSURLProtocol class];
  [NSUserDefaults standardUserDefaults];
}

// The protocol never releases the texts that it makes for a request's head.
thread_local int handlesRequests;
using Handle = void (*)(id, SEL, id, NSUInteger);
using Format = id (*)(id, SEL, id, id, va_list);
Handle handleEvent;
Format initWithFormat;

void handleEventHere(id self, SEL selector, id stream, NSUInteger event) {
  ++handlesRequests;
  @try {
    handleEvent(self, selector, stream, event);
  } @finally {
    --handlesRequests;
  }
}

id initWithFormatHere(id self, SEL selector, id format, id locale, va_list arguments) {
  id text = initWithFormat(self, selector, format, locale, arguments);
  if (handlesRequests && text) __lsan_ignore_object(text);
  return text;
}

template <class F> F replace(const char* type, SEL selector, F by) {
  Method method = class_getInstanceMethod(objc_getClass(type), selector);
  if (!method) {
    fprintf(stderr, "testbed: GNUstep has no -[%s %s] any more; see leaks.mm\n", type,
            sel_getName(selector));
    abort();
  }
  return reinterpret_cast<F>(method_setImplementation(method, reinterpret_cast<IMP>(by)));
}

} // namespace

@interface TestbedLeaks : NSObject
@end
@implementation TestbedLeaks
+ (void)load {
  if (!__lsan_disable) return;
  __lsan_disable();
  @autoreleasepool {
    initialiseClasses();
  }
  __lsan_enable();
  handleEvent = replace("_NSHTTPURLProtocol", @selector(stream:handleEvent:), handleEventHere);
  initWithFormat = replace("GSPlaceholderString", @selector(initWithFormat:locale:arguments:),
                           initWithFormatHere);
}
@end
