#include "appkit.h"

#include <string>

#import <Foundation/Foundation.h>
#include <objc/runtime.h>

// clang-format off
@interface NSResponder : NSObject @end
@interface NSView : NSResponder @end
@interface NSText : NSView @end
@interface NSTextView : NSText @end
@interface NSFont : NSObject @end
@interface NSParagraphStyle : NSObject @end
@interface NSRunningApplication : NSObject @end

@implementation NSResponder @end
@implementation NSView @end
@implementation NSText @end
@implementation NSTextView @end
@implementation NSFont @end
@implementation NSParagraphStyle @end
@implementation NSRunningApplication @end
// clang-format on

void* appkit_class_with_long_name(unsigned length) {
  std::string name = "NSLong";
  name.resize(length, 'x');
  if (Class known = objc_getClass(name.c_str())) return known;
  Class made = objc_allocateClassPair([NSView class], name.c_str(), 0);
  objc_registerClassPair(made);
  return made;
}
