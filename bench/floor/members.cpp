// Beside the members of the updater, the appcast and its items, and the registration.

#include "bench/floor/kit.h"

namespace floors {

namespace {

// --- Booleans. ---

Boolean1 flag(Object* instance) {
  Boolean1 result = 0;
  FRAME(result = static_cast<Boolean1>(send<BOOL>(record<id>(instance), sel.flag)););
  return result;
}

void setFlag(Object* instance, Boolean1 value) {
  FRAME(send<void>(record<id>(instance), sel.setFlag, static_cast<BOOL>(value)););
}

// --- Text. ---

String* title(Object* instance) {
  String* result = nullptr;
  FRAME(result = newString(send<id>(record<id>(instance), sel.title)););
  return result;
}

String* feedURL(Object* instance) {
  String* result = nullptr;
  FRAME(result =
            newString(send<id>(send<id>(record<id>(instance), sel.feedURL), sel.absoluteString)););
  return result;
}

void setUserAgent(Object* instance, String* text) {
  FRAME(send<void>(record<id>(instance), sel.setUserAgent,
                   send<id>(asObject(host.stringCFString(text, 0)), sel.autorelease)););
}

void setFeedURL(Object* instance, String* text) {
  FRAME(
      CFStringRef string = host.stringCFString(text, 0);
      CFURLRef url = CFURLCreateWithString(nullptr, string, nullptr); CFRelease(string);
      send<void>(record<id>(instance), sel.setFeedURL, send<id>(asObject(url), sel.autorelease)););
}

// --- The items of an appcast. ---

Object* items(Object* instance) {
  constexpr int objects = 4;
  Object* result = host.createArray(objects, -1);
  FRAME(id enumerator = send<id>(send<id>(record<id>(instance), sel.items), sel.objectEnumerator);
        int index = 0; while (id element = send<id>(enumerator, sel.nextObject)) {
          Object* item = wrapItem(element);
          using Insert = void (*)(Object*, int, Object*);
          reinterpret_cast<Insert>(host.insertProc(result))(result, index++, item);
          host.unlockObject(item);
        });
  return result;
}

// --- Start-up. ---

void start(void* (*resolver)(const char*)) {
  auto registerVersion =
      reinterpret_cast<void (*)(std::int32_t)>(resolver("RegisterPluginVersion"));
  auto hostVersion = reinterpret_cast<double (*)()>(resolver("REALGetRBVersion"));
  registerVersion(hostVersion() >= 2013.03 ? 12 : 9);
  for (unsigned i = 0; i < facts->classRecordCount; ++i) {
    host.registerClass(facts->classRecords[i]);
  }
}

} // namespace

static String* newUTF8(CFStringRef string, CFIndex units) {
  constexpr CFIndex size = 60001;
  static char buffer[size];
  CFStringGetCString(string, buffer, units * 6 + 1, kCFStringEncodingUTF8);
  String* result = host.buildString(buffer, static_cast<int>(strlen(buffer)));
  host.setStringEncoding(result, kCFStringEncodingUTF8);
  return result;
}

String* newString(id text) {
  auto string = asString(text);
  CFIndex units = CFStringGetLength(string);
  if (units < 100) return newUTF8(string, units);
  // Memory of the heap must be given back whatever is thrown.
  String* result = nullptr;
  FRAME(result = newUTF8(string, units););
  return result;
}

Object* wrapItem(id object) {
  auto* known = static_cast<Object*>(const_cast<void*>(CFDictionaryGetValue(registry, object)));
  if (known) {
    host.lockObject(known);
    return known;
  }
  send<id>(object, sel.retain);
  Object* instance = host.newInstance("SUAppcastItemKVZ");
  record<id>(instance) = object;
  CFDictionarySetValue(registry, object, instance);
  return instance;
}

const Function memberFunctions[] = {
    FLOOR("flag", flag),
    FLOOR("set flag", setFlag),
    FLOOR("title", title),
    FLOOR("feed URL", feedURL),
    FLOOR("set user agent", setUserAgent),
    FLOOR("set feed URL", setFeedURL),
    FLOOR("items", items),
    FLOOR("start", start),
    {},
};

} // namespace floors
