// A window of the framework. Nothing is drawn: a step announces it, and whoever plays the person
// presses one of its buttons, from inside that notification or later, on any thread.
//
// Ownership: the one who shows it holds it until it is closed. Its target is told on the thread
// that showed the window, which must then turn its run loop unless the answer comes at once.
#import "SUStep.h"

@interface SUWindow : NSObject {
  id owner; // of the steps, and who is told; not retained
  SEL answered;
  NSString* title;
  NSArray* buttons;
  NSThread* thread;
}

// `step` is SUStepShows or SUStepAsks. `answered` takes the button's name.
- (id)initWithTitle:(NSString*)title
            buttons:(NSArray*)buttons
              owner:(id)owner
           answered:(SEL)answered;
- (void)announce:(NSString*)step;
- (void)close;

- (NSString*)title;
- (NSArray*)buttons;
// Any thread. A window that is closed, or has no such button, ignores it.
- (void)press:(NSString*)button;

@end
