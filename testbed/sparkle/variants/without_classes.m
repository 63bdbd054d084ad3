// A bundle that loads and offers nothing of what an update framework offers.
#import <Foundation/Foundation.h>

@interface SomethingElse : NSObject
@end

@implementation SomethingElse
@end
