#import "SUStep.h"

void SUPostStep(id object, NSString* step, NSDictionary* more, NSString* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  NSString* detail = [[[NSString alloc] initWithFormat:format arguments:arguments] autorelease];
  va_end(arguments);
  NSString* thread = [NSThread isMainThread] ? @"main" : [[NSThread currentThread] name];
  NSMutableDictionary* info = [NSMutableDictionary
      dictionaryWithObjectsAndKeys:step, @"step", detail, @"detail",
                                   [thread length] ? thread : @"a thread without name", @"thread",
                                   nil];
  [info addEntriesFromDictionary:more];
  [[NSNotificationCenter defaultCenter] postNotificationName:SUUpdaterStepNotification
                                                      object:object
                                                    userInfo:info];
}
