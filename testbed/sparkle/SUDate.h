// Dates as feeds write them: "Sat, 26 Jul 2008 15:20:11 +0000" and its usual shortenings.
#import <Foundation/Foundation.h>

// nil for text that is no date. Independent of locale and time zone of the machine. Any thread.
NSDate* SUDateFromFeed(NSString* text);
