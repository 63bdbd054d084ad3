#import "SUStandardVersionComparator.h"

typedef enum { kEnd, kText, kNumber } PartKind;

typedef struct {
  PartKind kind;
  NSString* text;
} Part;

static BOOL isIn(unichar c, NSCharacterSet* set) { return [set characterIsMember:c]; }

// The next run of digits or letters at *at, which moves behind it. Everything else separates parts.
static Part nextPart(NSString* version, NSUInteger* at) {
  NSCharacterSet* digits = [NSCharacterSet decimalDigitCharacterSet];
  NSCharacterSet* letters = [NSCharacterSet letterCharacterSet];
  NSUInteger length = [version length], begin = *at;
  while (begin < length && !isIn([version characterAtIndex:begin], digits) &&
         !isIn([version characterAtIndex:begin], letters))
    ++begin;
  *at = begin;
  if (begin == length) return (Part){kEnd, @""};
  BOOL number = isIn([version characterAtIndex:begin], digits);
  NSCharacterSet* set = number ? digits : letters;
  NSUInteger end = begin;
  while (end < length && isIn([version characterAtIndex:end], set)) ++end;
  *at = end;
  return (Part){number ? kNumber : kText,
                [version substringWithRange:NSMakeRange(begin, end - begin)]};
}

// Digits of any length: without leading zeros the longer one is the larger number.
static NSComparisonResult compareNumbers(NSString* a, NSString* b) {
  NSUInteger i = 0, j = 0;
  while (i < [a length] && [a characterAtIndex:i] == '0') ++i;
  while (j < [b length] && [b characterAtIndex:j] == '0') ++j;
  a = [a substringFromIndex:i];
  b = [b substringFromIndex:j];
  if ([a length] != [b length])
    return [a length] < [b length] ? NSOrderedAscending : NSOrderedDescending;
  return [a compare:b options:NSLiteralSearch];
}

@implementation SUStandardVersionComparator

+ (SUStandardVersionComparator*)defaultComparator {
  static SUStandardVersionComparator* comparator;
  @synchronized([SUStandardVersionComparator class]) {
    if (!comparator) comparator = [[SUStandardVersionComparator alloc] init];
  }
  return comparator;
}

- (NSComparisonResult)compareVersion:(NSString*)versionA toVersion:(NSString*)versionB {
  NSUInteger atA = 0, atB = 0;
  for (;;) {
    Part a = nextPart(versionA, &atA), b = nextPart(versionB, &atB);
    if (a.kind == kEnd && b.kind == kEnd) return NSOrderedSame;
    if (a.kind != b.kind) {
      // Text is a preview of what has no text here; a further number is a later version, unless
      // it is zero ("1.0" and "1.0.0" are the same).
      if (a.kind == kText) return NSOrderedAscending;
      if (b.kind == kText) return NSOrderedDescending;
      NSComparisonResult more =
          compareNumbers(a.kind == kEnd ? @"0" : a.text, b.kind == kEnd ? @"0" : b.text);
      if (more != NSOrderedSame) return more;
      continue;
    }
    NSComparisonResult result =
        a.kind == kNumber ? compareNumbers(a.text, b.text) : [a.text compare:b.text];
    if (result != NSOrderedSame) return result;
  }
}

@end
