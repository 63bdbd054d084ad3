// The update framework, which the host program ships in a folder of its choice: nothing is linked,
// its classes are found by name once its bundle is loaded. There is no unloading.
//
// All globals are written without locks, on the host's thread.
#pragma once

#include "plugin/host.h"

// The framework's classes; null while it is not loaded. MySUUpdater alone decides whether it
// counts as loaded.
extern id MySUUpdater;
extern id MySUAppcast;
extern id MySUAppcastItem;

// Fetches the instance registry (convert/registry.h), and has the companion plug-in prepare its
// exceptions once. Cheap to repeat, and harmless where there is no companion. Sends messages, so
// call it inside a frame.
void CocoaInit();

// Loads the framework bundle in the folder and answers whether all three classes are there. True
// at once when it is loaded already, whatever the folder. A Cocoa exception on the way is raised
// in the host.
RBBoolean LoadSparkleFramework(REALfolderItemStruct* folder);

RBBoolean IsFrameworkLoaded();
