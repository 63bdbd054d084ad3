// SUUpdaterKVZ: the host class around the framework's updater.

#include "convert/dates.h"
#include "convert/files.h"
#include "convert/registry.h"
#include "convert/strings.h"
#include "framework/framework.h"
#include "plugin/failure.h"
#include "updater/delegate.h"

namespace {

// Neither field is set by the registered constructor: the host hands over a zero-filled record.
struct UpdaterRecord {
  // Released by the destructor but not retained when it is stored: it takes over the reference that
  // the framework hands out. 1.5b6 has one of these to spare and 1.6 none, so a program makes one
  // updater for a bundle and keeps it.
  id updater;
  // Owned.
  id delegate;
};

UpdaterRecord& recordOf(REALobjectStruct* instance) {
  return instanceRecord<UpdaterRecord>(SUUpdaterDefinition, instance);
}

id updaterOf(REALobjectStruct* instance) { return recordOf(instance).updater; }

// --- Properties and plain actions: one message each. To an empty instance it goes to nil, which
// answers zero. ---

RBBoolean readFlag(REALobjectStruct* instance, SEL message) {
  RBBoolean result = false;
  raising(
      [=, &result] { result = static_cast<RBBoolean>(send<BOOL>(updaterOf(instance), message)); });
  return result;
}

void writeFlag(REALobjectStruct* instance, SEL message, RBBoolean value) {
  raising([=] { send<void>(updaterOf(instance), message, static_cast<BOOL>(value)); });
}

void act(REALobjectStruct* instance, SEL message) {
  raising([&] { send<void>(updaterOf(instance), message); });
}

template <Literal Message> RBBoolean flag(REALobjectStruct* instance) {
  return readFlag(instance, operator""_sel<Message>());
}

template <Literal Message> void setFlag(REALobjectStruct* instance, RBBoolean value) {
  writeFlag(instance, operator""_sel<Message>(), value);
}

template <Literal Message> void action(REALobjectStruct* instance) {
  act(instance, operator""_sel<Message>());
}

void checkForUpdates(REALobjectStruct* instance) {
  raising([&] {
    CocoaInit();
    send<void>(updaterOf(instance), "checkForUpdates:"_sel, id{});
  });
}

REALstringStruct* feedURL(REALobjectStruct* instance) {
  id updater = updaterOf(instance);
  if (!updater) return nullptr;
  REALstringStruct* result = nullptr;
  raising([&] {
    id absolute = send<id>(send<id>(updater, "feedURL"_sel), "absoluteString"_sel);
    result = CFString2RBString(asString(absolute));
  });
  return result;
}

// Nothing, and what is no URL, clear the framework's feed.
void setFeedURL(REALobjectStruct* instance, REALstringStruct* url) {
  id updater = updaterOf(instance);
  if (!updater) return;
  raising([&] { send<void>(updater, "setFeedURL:"_sel, autoreleasedURL(url)); });
}

// In seconds.
double updateCheckInterval(REALobjectStruct* instance) {
  double result = 0;
  raising([&] { result = send<double>(updaterOf(instance), "updateCheckInterval"_sel); });
  return result;
}

void setUpdateCheckInterval(REALobjectStruct* instance, double seconds) {
  raising([&] { send<void>(updaterOf(instance), "setUpdateCheckInterval:"_sel, seconds); });
}

REALobjectStruct* lastUpdateCheckDate(REALobjectStruct* instance) {
  REALobjectStruct* result = nullptr;
  raising([&] { result = NSDateRB(send<id>(updaterOf(instance), "lastUpdateCheckDate"_sel)); });
  return result;
}

REALfolderItemStruct* hostBundle(REALobjectStruct* instance) {
  REALfolderItemStruct* result = nullptr;
  raising([&] {
    CocoaInit();
    id path = send<id>(send<id>(updaterOf(instance), "hostBundle"_sel), "bundlePath"_sel);
    if (!path) return;
    result = CFURL2RBFile(asURL(send<id>("NSURL"_class, "fileURLWithPath:"_sel, path)));
  });
  return result;
}

// There so that a program which uses this class knows NSExceptionKVZ.
REALobjectStruct* DummyException(REALobjectStruct*) { return nullptr; }

// --- Binding. ---

// The delegate stands before the framework is asked for the updater.
template <class FindUpdater> void bind(REALobjectStruct* instance, FindUpdater findUpdater) {
  if (updaterOf(instance)) return raiseAlreadyInitialized();
  raising([&] {
    CocoaInit();
    UpdaterRecord& record = recordOf(instance);
    record.delegate = newDelegate(instance);
    record.updater = findUpdater();
    send<void>(record.updater, "setDelegate:"_sel, record.delegate);
    if (record.updater) enterInstance(record.updater, instance);
  });
}

void sharedUpdater(REALobjectStruct* instance) {
  bind(instance, [] { return send<id>(MySUUpdater, "sharedUpdater"_sel); });
}

void updaterForBundle(REALobjectStruct* instance, REALfolderItemStruct* folder) {
  bind(instance, [&] {
    id bundle = send<id>("NSBundle"_class, "bundleWithPath:"_sel, autoreleasedPath(folder));
    return send<id>(MySUUpdater, "updaterForBundle:"_sel, bundle);
  });
}

void SUUpdaterConstructor(REALobjectStruct*) {
  raising([] { CocoaInit(); });
}

void SUUpdaterDestructor(REALobjectStruct* instance) {
  raising([&] {
    UpdaterRecord& record = recordOf(instance);
    removeInstance(record.updater);
    if (record.updater) {
      send<void>(record.updater, "setDelegate:"_sel, id{});
      send<void>(record.updater, "release"_sel);
      record.updater = nullptr;
    }
    if (record.delegate) {
      send<void>(record.delegate, "release"_sel);
      record.delegate = nullptr;
    }
  });
}

// --- Completing a postponed relaunch. ---

void release(id& held) {
  id object = held;
  held = nullptr;
  send<void>(object, "release"_sel);
}

// The relaunch quits the application while the invocation runs: the program may let its updater go
// then, and the delegate with it, which is therefore kept. The framework may also postpone again
// meanwhile, and so replace the invocation: it is ours while it runs, and goes back only when it
// could not be carried out.
void InvokeUpdate(REALobjectStruct* instance) {
  id delegate = nullptr;
  id invocation = nullptr;
  id thrown = attempt([&] {
    CocoaInit();
    id own = recordOf(instance).delegate;
    if (!own) return;
    if (!postponedInvocation(own)) {
      return RaiseException("NilObjectException", "invocation is nil!", 0);
    }
    delegate = send<id>(own, "retain"_sel);
    invocation = postponedInvocation(delegate);
    postponedInvocation(delegate) = nullptr;
    send<void>(invocation, "invoke"_sel);
    release(invocation);
  });
  if (invocation && !postponedInvocation(delegate)) {
    postponedInvocation(delegate) = invocation;
    invocation = nullptr;
  }
  attempt([&] { release(invocation); });
  id later = attempt([&] { release(delegate); });
  if (!thrown) thrown = later;
  if (thrown) raiseInHost(thrown);
}

REALproperty properties[] = {HANDLE_PROPERTY};

REALmethodDefinition methods[] = {
    MEMBER("InvokeUpdate", InvokeUpdate),
    MEMBER("_exception as NSExceptionKVZ", DummyException),
    PROPERTY("feedURL as string", feedURL, setFeedURL),
    PROPERTY("automaticallyChecksForUpdates as boolean", flag<"automaticallyChecksForUpdates">,
             setFlag<"setAutomaticallyChecksForUpdates:">),
    PROPERTY("sendsSystemProfile as boolean", flag<"sendsSystemProfile">,
             setFlag<"setSendsSystemProfile:">),
    PROPERTY("automaticallyDownloadsUpdates as boolean", flag<"automaticallyDownloadsUpdates">,
             setFlag<"setAutomaticallyDownloadsUpdates:">),
    MEMBER("checkForUpdatesInBackground", action<"checkForUpdatesInBackground">),
    MEMBER("checkForUpdateInformation", action<"checkForUpdateInformation">),
    MEMBER("resetUpdateCycle", action<"resetUpdateCycle">),
    MEMBER("updateInProgress as boolean", flag<"updateInProgress">),
    PROPERTY("updateCheckInterval as double", updateCheckInterval, setUpdateCheckInterval),
    MEMBER("lastUpdateCheckDate as date", lastUpdateCheckDate),
    MEMBER("checkForUpdates", checkForUpdates),
    MEMBER("Constructor", sharedUpdater),
    MEMBER("Constructor(Bundle as folderitem)", updaterForBundle),
    MEMBER("hostBundle as folderitem", hostBundle),
};

REALmethodDefinition sharedMethods[] = {
    MEMBER("LoadFramework(path as folderitem) as boolean", LoadSparkleFramework),
    MEMBER("IsFrameworkLoaded as boolean", IsFrameworkLoaded),
};

} // namespace

REALclassDefinition SUUpdaterDefinition = {
    .version = kLayoutVersion,
    .name = "SUUpdaterKVZ",
    .dataSize = sizeof(UpdaterRecord),
    .constructor = SUUpdaterConstructor,
    .destructor = SUUpdaterDestructor,
    .properties = properties,
    .propertyCount = entries(properties),
    .methods = methods,
    .methodCount = entries(methods),
    .events = updaterEvents,
    .eventCount = entries(updaterEvents),
    .flags = kClassFlags,
    .sharedMethods = sharedMethods,
    .sharedMethodCount = entries(sharedMethods),
};
