// SUAppcastKVZ: one feed. A host program makes one and fetches it, or is handed one by an event.

#include "appcast/appcast.h"

#include "convert/dates.h"
#include "convert/strings.h"
#include "framework/framework.h"
#include "framework/wrapping.h"
#include "plugin/failure.h"

REALobjectStruct* SUAppcastRB(id appcast) { return wrap(SUAppcastDefinition, appcast); }

namespace {

id appcastOf(REALobjectStruct* instance) { return wrappedObject(SUAppcastDefinition, instance); }

// Read by key and written by message: the framework has a setter for it, but no getter.
REALstringStruct* UserAgentString(REALobjectStruct* instance) {
  REALstringStruct* result = nullptr;
  raising([&] {
    CocoaInit();
    id value = send<id>(appcastOf(instance), "valueForKey:"_sel, "userAgentString"_ns);
    result = CFString2RBString(asString(value));
  });
  return result;
}

void setUserAgentString(REALobjectStruct* instance, REALstringStruct* value) {
  raising([&] {
    send<void>(appcastOf(instance), "setUserAgentString:"_sel, autoreleasedString(value));
  });
}

void fetchAppcastFromURL(REALobjectStruct* instance, REALstringStruct* url) {
  id appcast = appcastOf(instance);
  if (!appcast) return;
  raising([&] { send<void>(appcast, "fetchAppcastFromURL:"_sel, autoreleasedURL(url)); });
}

void theSUAppcastConstructor(REALobjectStruct* instance) {
  if (appcastOf(instance)) return raiseAlreadyInitialized();
  raising([&] {
    CocoaInit();
    id appcast = send<id>(send<id>(MySUAppcast, "alloc"_sel), "init"_sel);
    fill(SUAppcastDefinition, instance, appcast);
  });
}

// An array even for an empty instance. Positions match those in the feed: an item that the host
// makes no instance for leaves nil at its place.
REALarrayStruct* items(REALobjectStruct* instance) {
  REALarrayStruct* result = REALCreateArray(kArrayOfObjects, -1);
  if (!result) return nullptr;
  REALobjectStruct* item = nullptr;
  id thrown = attempt([&] {
    CocoaInit();
    id elements = send<id>(appcastOf(instance), "items"_sel);
    id enumerator = send<id>(elements, "objectEnumerator"_sel);
    int index = 0;
    while (id element = send<id>(enumerator, "nextObject"_sel)) {
      item = SUAppcastItemRB(element);
      REALInsertArrayValueObject(result, index++, item);
      unlock(item);
    }
  });
  if (!thrown) return result;
  unlock(item);
  // What cannot be raised in the host leaves this function in place of the array.
  if (id escaping = attempt([&] { raiseInHost(thrown); })) {
    unlock(result);
    objc_exception_throw(escaping);
  }
  return result;
}

REALobjectStruct* incrementalData(REALobjectStruct* instance) {
  REALobjectStruct* result = nullptr;
  raising([&] {
    CocoaInit();
    result = NSDataRB(send<id>(appcastOf(instance), "valueForKey:"_sel, "incrementalData"_ns));
  });
  return result;
}

void SUAppcastConstructor(REALobjectStruct*) {
  raising([] { CocoaInit(); });
}

void SUAppcastDestructor(REALobjectStruct* instance) {
  raising([&] {
    CocoaInit();
    empty(SUAppcastDefinition, instance);
  });
}

REALproperty properties[] = {HANDLE_PROPERTY};

REALmethodDefinition methods[] = {
    PROPERTY("UserAgentString as string", UserAgentString, setUserAgentString),
    MEMBER("fetchAppcastFromURL(url as string)", fetchAppcastFromURL),
    MEMBER("Constructor", theSUAppcastConstructor),
    MEMBER("items as SUAppcastItemKVZ()", items),
    MEMBER("incrementalData as memoryblock", incrementalData),
};

} // namespace

REALclassDefinition SUAppcastDefinition = {
    .version = kLayoutVersion,
    .name = "SUAppcastKVZ",
    .dataSize = sizeof(id),
    .constructor = SUAppcastConstructor,
    .destructor = SUAppcastDestructor,
    .properties = properties,
    .propertyCount = entries(properties),
    .methods = methods,
    .methodCount = entries(methods),
    .flags = kClassFlags,
};
