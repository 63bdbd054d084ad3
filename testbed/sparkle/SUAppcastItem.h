// One release in an appcast, as read from the feed. Nothing changes after init, so any thread may
// read.
//
// propertiesDictionary keeps what the feed's <item> says, under each child's name with its prefix
// as written:
//   "pubDate"            NSDate; left out when its text is no date
//   "enclosure"          NSDictionary of its attributes, all NSString
//   any other            NSString: the text, without white space at its ends
#import <Foundation/Foundation.h>

@interface SUAppcastItem : NSObject {
  NSDictionary* propertiesDictionary;
  NSURL* releaseNotesURL;
  NSURL* fileURL;
  NSString* versionString;
}

// Nil with *problem set for an item that offers nothing: without enclosure, without its url,
// without a version.
- (id)initWithDictionary:(NSDictionary*)properties problem:(NSString**)problem;

// Each is nil when the feed does not say it. A plain init gives an item of which everything is nil.
- (NSString*)title;
- (NSString*)versionString; // of the enclosure; else what stands between the url's last "_" and "."
- (NSString*)displayVersionString; // sparkle:shortVersionString, else the version
- (NSDate*)date;
- (NSString*)itemDescription;
- (NSURL*)releaseNotesURL; // without the link, a description that begins with http://
- (NSURL*)fileURL;         // percent-escaped; a relative one stays so
- (NSString*)DSASignature;
- (NSString*)minimumSystemVersion;
- (NSDictionary*)propertiesDictionary;

@end
