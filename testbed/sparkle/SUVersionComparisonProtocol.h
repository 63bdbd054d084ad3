// The one method by which versions are ordered. A host program that orders versions in its own way
// gives the updater an object with this protocol (versionComparatorForUpdater:).
#import <Foundation/Foundation.h>

@protocol SUVersionComparison
// Called on a thread of the updater's own. NSOrderedAscending means that `versionB` is newer.
- (NSComparisonResult)compareVersion:(NSString*)versionA toVersion:(NSString*)versionB;
@end
