// The order of versions when the delegate names no comparator of its own: runs of digits compare as
// numbers, runs of letters as text, and a letter where the other version has a digit or nothing
// stands for a preview ("1.0b3" < "1.0" < "1.0.1"). No state: any thread may use the shared object.
#import "SUVersionComparisonProtocol.h"

@interface SUStandardVersionComparator : NSObject <SUVersionComparison>
// Owned by the class; lives as long as the process.
+ (SUStandardVersionComparator*)defaultComparator;
@end
