// The last steps of an update, on files. Any thread.
#import <Foundation/Foundation.h>

// A new folder beside `path`, on the same volume, so that the new version can be moved into place
// at once; nil with *reason set if none can be made. The caller removes it.
NSString* SUWorkFolder(NSString* path, NSString** reason);

// The folder named `name` in the folder `unpacked` or one level below it; nil if there is none.
NSString* SUFindBundle(NSString* unpacked, NSString* name);

// Puts the folder `replacement` in the place of `path` in one step; the old one ends up at
// `replacement` and is removed. NO with *reason set leaves `path` as it was.
BOOL SUReplace(NSString* path, NSString* replacement, NSString** reason);

// Starts the program of the bundle at `path` (or `path` itself), detached from the terminal. It is
// a child of this process, which nobody here waits for. Answers its process id, or -1 with *reason
// set.
int SULaunch(NSString* path, NSString** reason);
