// One release in an appcast, as read from the feed. Nothing changes after init, so any thread may
// read.
//
// propertiesDictionary keeps everything that the feed's <item> says, under the element's full name:
//   an element with text              NSString
//   "pubDate", when it is a date      NSDate (text that is no date stays an NSString)
//   "enclosure"                       NSDictionary of its attributes; "length", when it is a
//   number, is
//                                     an NSNumber
//   an element with elements inside   NSArray, one entry a child: the name of an empty child
//   ("sparkle:tags", "sparkle:deltas")  (NSString), the text of one with text (NSString), the
//   attributes
//                                     of one with attributes (NSDictionary)
// Of elements that come twice, the first counts.
#import <Foundation/Foundation.h>

@interface SUAppcastItem : NSObject {
  NSDictionary* propertiesDictionary;
  NSURL* releaseNotesURL;
  NSURL* fileURL;
  NSString* versionString;
}

// `properties` as above. URLs in it may be relative to `base`, the URL of the feed (nil: none).
- (id)initWithDictionary:(NSDictionary*)properties relativeToURL:(NSURL*)base;
- (id)initWithDictionary:(NSDictionary*)properties;

// Each is nil when the feed does not say it, or says something else than it should. A plain init
// gives an item of which everything is nil.
- (NSString*)title;
- (NSString*)versionString; // of the enclosure; else from the file's name, between the last "_" and
                            // the extension
- (NSString*)displayVersionString; // sparkle:shortVersionString, else the version
- (NSDate*)date;
- (NSString*)itemDescription;
- (NSURL*)releaseNotesURL; // without sparkle:releaseNotesLink, a description that is a URL
- (NSURL*)fileURL;
- (NSString*)DSASignature;
- (NSString*)minimumSystemVersion;
- (NSDictionary*)propertiesDictionary;

@end
