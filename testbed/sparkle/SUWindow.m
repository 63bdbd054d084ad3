#import "SUWindow.h"

@implementation SUWindow

- (id)initWithTitle:(NSString*)aTitle
            buttons:(NSArray*)someButtons
              owner:(id)anOwner
           answered:(SEL)aSelector {
  if (!(self = [super init])) return nil;
  title = [aTitle copy];
  buttons = [someButtons copy];
  owner = anOwner;
  answered = aSelector;
  thread = [[NSThread currentThread] retain];
  return self;
}

- (void)dealloc {
  [title release];
  [buttons release];
  [thread release];
  [super dealloc];
}

- (NSString*)title {
  return title;
}

- (NSArray*)buttons {
  return buttons;
}

- (void)announce:(NSString*)step {
  NSString* all = [buttons componentsJoinedByString:@" / "];
  SUPostStep(owner, step,
             [NSDictionary dictionaryWithObjectsAndKeys:self, @"window", title, @"title", nil],
             @"%@", [step isEqual:SUStepShows] ? title : all);
}

- (void)close {
  owner = nil;
}

- (void)press:(NSString*)button {
  if ([NSThread currentThread] != thread) {
    [self performSelector:_cmd onThread:thread withObject:button waitUntilDone:NO];
    return;
  }
  if (!owner || ![buttons containsObject:button]) return;
  id told = [[owner retain] autorelease];
  owner = nil;
  SUPostStep(told, SUStepAnswered, [NSDictionary dictionaryWithObject:title forKey:@"title"], @"%@",
             button);
  [told performSelector:answered withObject:button];
}

@end
