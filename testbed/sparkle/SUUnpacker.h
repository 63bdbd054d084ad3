// Archives of any kind that libarchive reads (zip, tar with any compression, …). Any thread.
#import <Foundation/Foundation.h>

// Unpacks the archive into the folder, which exists. Entries whose path or link leads out of the
// folder, and anything that is no file, folder or link, end it. Answers the number of entries, or
// -1 with *reason set; the folder may then hold a part.
int SUUnpack(NSString* archive, NSString* folder, NSString** reason);
