// SUAppcastItemKVZ: a read-only view of one release in a feed. Nothing is cached; each member asks
// the framework again.

#include "appcast/appcast.h"
#include "convert/dates.h"
#include "convert/dictionaries.h"
#include "convert/strings.h"
#include "framework/framework.h"
#include "framework/wrapping.h"
#include "plugin/failure.h"

REALobjectStruct* SUAppcastItemRB(id item) { return wrap(SUAppcastItemDefinition, item); }

id appcastItemOf(REALobjectStruct* instance) {
  return wrappedObject(SUAppcastItemDefinition, instance);
}

namespace {

// Messages to an empty instance's nil answer nil, and nil converts to nothing.
REALstringStruct* text(REALobjectStruct* instance, SEL message) {
  REALstringStruct* result = nullptr;
  raising(
      [&] { result = CFString2RBString(asString(send<id>(appcastItemOf(instance), message))); });
  return result;
}

REALstringStruct* absoluteURL(REALobjectStruct* instance, SEL message) {
  id item = appcastItemOf(instance);
  if (!item) return nullptr;
  REALstringStruct* result = nullptr;
  raising([&] {
    id absolute = send<id>(send<id>(item, message), "absoluteString"_sel);
    result = CFString2RBString(asString(absolute));
  });
  return result;
}

REALobjectStruct* converted(REALobjectStruct* instance, SEL message,
                            REALobjectStruct* (*convert)(id)) {
  REALobjectStruct* result = nullptr;
  raising([&] { result = convert(send<id>(appcastItemOf(instance), message)); });
  return result;
}

template <Literal Message> REALstringStruct* text(REALobjectStruct* instance) {
  return text(instance, operator""_sel<Message>());
}

template <Literal Message> REALstringStruct* absoluteURL(REALobjectStruct* instance) {
  return absoluteURL(instance, operator""_sel<Message>());
}

REALobjectStruct* date(REALobjectStruct* instance) {
  return converted(instance, "date"_sel, NSDateRB);
}

REALobjectStruct* propertiesDictionary(REALobjectStruct* instance) {
  return converted(instance, "propertiesDictionary"_sel, NSDictionaryRB);
}

void theSUAppcastItemConstructor(REALobjectStruct* instance) {
  if (appcastItemOf(instance)) return raiseAlreadyInitialized();
  raising([&] {
    id item = send<id>(send<id>(MySUAppcastItem, "alloc"_sel), "init"_sel);
    fill(SUAppcastItemDefinition, instance, item);
  });
}

void SUAppcastItemConstructor(REALobjectStruct*) {
  raising([] { CocoaInit(); });
}

void SUAppcastItemDestructor(REALobjectStruct* instance) {
  raising([&] {
    CocoaInit();
    empty(SUAppcastItemDefinition, instance);
  });
}

REALproperty properties[] = {HANDLE_PROPERTY};

REALmethodDefinition methods[] = {
    MEMBER("title as string", text<"title">),
    MEMBER("versionString as string", text<"versionString">),
    MEMBER("displayVersionString as string", text<"displayVersionString">),
    MEMBER("date as date", date),
    MEMBER("itemDescription as string", text<"itemDescription">),
    MEMBER("releaseNotesURL as string", absoluteURL<"releaseNotesURL">),
    MEMBER("fileURL as string", absoluteURL<"fileURL">),
    MEMBER("DSASignature as string", text<"DSASignature">),
    MEMBER("minimumSystemVersion as string", text<"minimumSystemVersion">),
    MEMBER("Constructor", theSUAppcastItemConstructor),
    MEMBER("propertiesDictionary as dictionary", propertiesDictionary),
};

} // namespace

REALclassDefinition SUAppcastItemDefinition = {
    .version = kLayoutVersion,
    .name = "SUAppcastItemKVZ",
    .dataSize = sizeof(id),
    .constructor = SUAppcastItemConstructor,
    .destructor = SUAppcastItemDestructor,
    .properties = properties,
    .propertyCount = entries(properties),
    .methods = methods,
    .methodCount = entries(methods),
    .flags = kClassFlags,
};
