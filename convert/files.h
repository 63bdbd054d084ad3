// Files between the host's FolderItem and Cocoa's file URL, by way of the Carbon references that
// the host offers. Both directions also carry files that do not exist yet, as long as their folder
// does. No function here raises or logs; every failure is null. Host thread.
#pragma once

#include "plugin/host.h"

// A new URL, owned by the caller. Null for a null item or one that names nothing reachable.
CFURLRef CreateCFURLfromFolderItem(REALfolderItemStruct* item);

// A new FolderItem, owned by the caller. Null for a null URL, for one that is no file, and when
// neither the file nor its folder exists. Names of missing files are cut at 255 UTF-16 units.
REALfolderItemStruct* CFURL2RBFile(CFURLRef url);

// The POSIX path of a FolderItem, autoreleased; nil where there is no URL or no path.
id autoreleasedPath(REALfolderItemStruct* item);
