#include "losses.h"

#include <iterator>

namespace torture {

// Messages stand here without brackets: "-NSURL release".
const Loss losses[] = {
    // What the design says.
    {"updater-@(half-bound|unloaded)", always, "*", "*", losesInCocoa,
     "MySUUpdaterDelegateInformalProtocol",
     "a second constructor call of a half-bound updater overwrites its delegate"},
    {"updater-actions", anyThrow, "*", "Constructor(Bundle as folderitem)", losesInCocoa,
     "MySUUpdaterDelegateInformalProtocol",
     "a constructor that an exception ends leaves the updater half-bound, and the next call "
     "overwrites its delegate"},
    {"*", anyThrow, "-PlayedUpdater setDelegate:", "destroy *", losesInCocoa | staysEntered,
     "PlayedUpdater MySUUpdaterDelegateInformalProtocol PlayedInvocation",
     "a destructor that an exception ends goes no further, and there is no second one"},
    {"*", anyThrow, "-PlayedUpdater release", "destroy *", losesInCocoa,
     "MySUUpdaterDelegateInformalProtocol PlayedInvocation",
     "a destructor that an exception ends goes no further, and there is no second one"},
    {"*", anyThrow,
     "+NSException @(respondsToSelector:|GetInstancesDictionaryKVZ|PrepareNSExceptionKVZ)",
     "@(destroy *|between steps|updater*:)", losesInCocoa | staysEntered,
     "Played* MySU* BrittleItems",
     "a destructor that an exception ends goes no further, and there is no second one"},
    {"appcast-items-alone", anyThrow,
     "+NSException respondsToSelector:", "items as SUAppcastItemKVZ()", losesInCocoa, "PlayedItem",
     "without the companion an exception leaves the constructor of an instance, past the object "
     "retained for it, or the destructor, before its release"},
    {"reports-alone", failMessage, "+NSException respondsToSelector:", "updater*:", isRaised, "",
     "an instance that goes within a callback: its destructor reports as destructors do"},
    {"*", failMessage, "-Played@(Item|Appcast) release", "*", isRaised, "",
     "an instance that goes within a callback: its destructor reports as destructors do"},
    {"*", anyHostFault, "memoryBlockGetPtr", "*", losesInHost, "MemoryBlock",
     "a MemoryBlock whose bytes the host does not show is not given back"},
    {"answers@(|-on-worker)", anyFault, "*", "@(|parameters)", losesInHost, "Array",
     "an array of feed parameters whose conversion an exception ends is not given back"},
    {"*", failMessage, "-* @(respondsToSelector:|_cfTypeID)", "propertiesDictionary*", isSwallowed,
     "", "an NSException in the rule of Core Foundation objects turns to the class walk"},
    {"*", failMessage, "-NSException @(name|reason|userInfo)", "*", comesOut, "",
     "an exception that cannot be reported goes on"},
    {"*", failMessage, "+NSException NewNSExceptionKVZ:", "*", comesOut, "",
     "an exception that cannot be reported goes on"},
    {"comparison", anyThrow, "-MySUVersionComparison clearTarget", "Destructor", goesOtherwise, "",
     "a comparator whose link to its instance could not be cut still asks it"},

    // What no plug-in can help.
    {"*", absentOperation, "REAL@(Lock|Unlock)Object", "*",
     losesInHost | losesInCocoa | staysEntered, "*",
     "a host that takes no objects back keeps them, and what they hold"},
    {"*", absentOperation, "REALUnlockString", "*", losesInHost, "String",
     "a host that takes no strings back keeps them"},
    {"*", anyThrow, "-* @(release|autorelease|dealloc)", "*", losesInCocoa, "%",
     "the release itself did not happen"},
    {"*", anyThrow, "-NSURL autorelease", "*", losesInCocoa, "GSC*String",
     "what an object holds stays with it"},
    {"*", anyThrow, "-PlayedAppcast release", "*", losesInCocoa,
     "GSInlineArray PlayedItem BrittleItems", "what an object holds stays with it"},
    {"*", anyThrow, "-MySUUpdaterDelegateInformalProtocol @(release|dealloc)", "*", losesInCocoa,
     "PlayedInvocation", "what an object holds stays with it"},
    {"*", anyThrow, "-PlayedInvocation release", "destroy *", losesInCocoa,
     "MySUUpdaterDelegateInformalProtocol", "an object whose dealloc an exception ends stays"},
    {"*", anyThrow, "-* init*", "*", losesInCocoa, "%",
     "what an initialiser that throws has made is by Cocoa's rules nobody's"},
    {"reports-on-worker", throwObject, "-Played@(Item|Appcast) @(retain|release)",
     "updater*:", losesInCocoa, "*",
     "the main thread's half does not wake its caller when what comes out of it is no exception"},
    {"check", anyThrow, "-MySUUpdaterDelegateInformalProtocol *", "check", isSwallowed, "",
     "what a delegate throws at the framework ends in a run loop, which goes on without it"},
};

const size_t lossCount = std::size(losses);

} // namespace torture
