// The last steps of an update, on files. Any thread.
#import <Foundation/Foundation.h>

// The folder named `name` in the folder `unpacked` or one level below it; nil with *reason set if
// there is none.
NSString* SUFindBundle(NSString* unpacked, NSString* name, NSString** reason);

// Moves the folder at `path` to `aside`, and `replacement` into its place. NO with *reason set
// leaves `path` as it was.
BOOL SUReplace(NSString* path, NSString* replacement, NSString* aside, NSString** reason);

// Starts the program of the bundle at `path` (or `path` itself), detached from the terminal. It is
// a child of this process, which nobody here waits for. Answers its process id, -1 if nothing could
// be started.
int SULaunch(NSString* path);
