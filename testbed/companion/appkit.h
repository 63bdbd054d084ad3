// libtestbed_appkit.so: Cocoa classes that GNUstep Base lacks, empty but rightly related, for tests
// that convert their instances: NSTextView : NSText : NSView : NSResponder, NSFont,
// NSParagraphStyle, NSRunningApplication. All can be made with [[Class alloc] init]. Independent of
// the companion, so that tests without it have them too.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

// The class, a subclass of NSView, whose name is `length` characters long: "NSLong", then the
// letter x. Made at the first call for that length. Answers a Class. `length` is at least 7.
void* appkit_class_with_long_name(unsigned length);

#ifdef __cplusplus
}
#endif
