// Counts what the plug-in asks the Objective-C runtime for by name.
#pragma once

namespace bench {

// Calls of objc_getClass and sel_registerName out of the plug-in's code since the process began.
unsigned runtimeLookUps();

} // namespace bench
