#import <Foundation/Foundation.h>

#include <string>

std::string folder() { return [[[NSBundle mainBundle] bundlePath] UTF8String]; }
