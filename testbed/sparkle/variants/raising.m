// A bundle of which the load raises: at its end, when the bundle announces that it was loaded. Not
// in +load itself, which runs inside the dynamic linker; left by an exception, that would keep its
// lock.
#import <Foundation/Foundation.h>
#include <objc/runtime.h>

@interface SURaising : NSObject
@end

typedef void (*Post)(id, SEL, NSString*, id, NSDictionary*);
static Post post;
static Method method;

static void postOrRaise(id self, SEL selector, NSString* name, id object, NSDictionary* info) {
  if (![name isEqualToString:NSBundleDidLoadNotification]) {
    post(self, selector, name, object, info);
    return;
  }
  method_setImplementation(method, (IMP)post);
  [NSException raise:@"SULoadFailed" format:@"this framework does not want to be loaded"];
}

@implementation SURaising

+ (void)load {
  method = class_getInstanceMethod([NSNotificationCenter class],
                                   @selector(postNotificationName:object:userInfo:));
  post = (Post)method_getImplementation(method);
  method_setImplementation(method, (IMP)postOrRaise);
}

@end
