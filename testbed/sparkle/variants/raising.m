// A bundle of which the load raises. Not in +load itself: that runs inside the dynamic linker,
// which does not expect to be left by an exception.
#import <Foundation/Foundation.h>

@interface SURaising : NSObject
@end

@implementation SURaising

+ (void)load {
  [[NSNotificationCenter defaultCenter] addObserver:self
                                           selector:@selector(didLoad:)
                                               name:NSBundleDidLoadNotification
                                             object:nil];
}

+ (void)didLoad:(NSNotification*)notification {
  (void)notification;
  [[NSNotificationCenter defaultCenter] removeObserver:self];
  [NSException raise:@"SULoadFailed" format:@"this framework does not want to be loaded"];
}

@end
