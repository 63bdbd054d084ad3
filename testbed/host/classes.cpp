// The classes that the host knows: built-in ones, those of plug-ins, those of the host program.
#include "operations.h"

#include <unordered_set>

namespace host {

namespace {

struct BuiltIn {
  const char* name;
  const char* super;
  Kind kind;
  bool secret; // no name for plug-ins to ask for
};
constexpr BuiltIn builtIns[] = {
    {"String", nullptr, Kind::string, true},
    {"Variant", nullptr, Kind::boxed, true},
    {"Array", nullptr, Kind::array, true},
    {"Date", nullptr, Kind::date, false},
    {"Dictionary", nullptr, Kind::dictionary, false},
    {"MemoryBlock", nullptr, Kind::memoryBlock, false},
    {"FolderItem", nullptr, Kind::folderItem, false},
    {"RuntimeException", nullptr, Kind::exception, false},
    {"NilObjectException", "RuntimeException", Kind::exception, false},
    {"UnsupportedOperationException", "RuntimeException", Kind::exception, false},
    {"OutOfMemoryException", "RuntimeException", Kind::exception, false},
};

// Classes are never freed, since dead handles still name theirs. A later host's class takes the
// place of an earlier one's of that name.
struct Classes {
  std::map<std::string, Class*, std::less<>> byName;
  std::unordered_map<std::string, Class*> former;
  std::unordered_set<const void*> all;
  Class* roots[int(Kind::exception) + 1] = {};
};
Classes& classes() {
  static auto* instance = new Classes;
  return *instance;
}

} // namespace

void resetClasses() {
  Guard guard(hostMutex());
  // Where an object is left, its class and all above have to stay what they were.
  bool empty = true;
  for (auto& [name, type] : classes().byName) empty &= type->alive == 0;
  if (empty) classes().former.insert(classes().byName.begin(), classes().byName.end());
  classes().byName.clear();
  std::fill(std::begin(classes().roots), std::end(classes().roots), nullptr);
  for (const BuiltIn& row : builtIns) {
    Class& type = addClass(row.name, row.super ? &needClass(row.super) : nullptr, 0);
    type.kind = row.kind;
    type.builtIn = true;
    type.hidden = row.secret;
    if (!row.super) classes().roots[int(row.kind)] = &type;
  }
}

Class& builtInClass(Kind kind) {
  Class* type = classes().roots[int(kind)];
  if (!type) throw Error("there is no host yet; call host::start() first");
  return *type;
}

Class* findClass(std::string_view name) {
  Guard guard(hostMutex());
  auto place = classes().byName.find(name);
  return place == classes().byName.end() ? nullptr : place->second;
}

Class* findClassAnyCase(std::string_view name) {
  if (Class* exact = findClass(name)) return exact;
  Guard guard(hostMutex());
  for (auto& [each, type] : classes().byName)
    if (sameName(each, name)) return type;
  return nullptr;
}

Class& needClass(std::string_view name) {
  Class* type = findClass(name);
  if (!type)
    throw Error("there is no class \"" + std::string(name) +
                "\" in this host; is its plug-in loaded, or the subclass declared?");
  return *type;
}

Class& addClass(std::string_view name, Class* super, uint32_t dataSize) {
  Guard guard(hostMutex());
  if (findClass(name)) throw Error("there is a class \"" + std::string(name) + "\" already");
  Class* type = nullptr;
  if (auto former = classes().former.extract(std::string(name))) {
    type = former.mapped();
    forgetHandlers(*type);
    std::destroy_at(type);
    std::construct_at(type);
  } else {
    type = new Class;
  }
  type->name = name;
  type->super = super;
  type->kind = super ? super->kind : Kind::plain;
  type->dataStart = super ? super->dataStart + super->dataSize : 0;
  type->dataSize = dataSize;
  classes().byName.emplace(name, type);
  classes().all.insert(type);
  return *type;
}

bool isClassReference(const void* reference) {
  Guard guard(hostMutex());
  return classes().all.contains(reference);
}

bool derives(const Class* type, const Class* from) {
  while (type && type != from) type = type->super;
  return type != nullptr;
}

void forEachClass(const std::function<void(Class&)>& visit) {
  Guard guard(hostMutex());
  for (auto& [name, type] : classes().byName) visit(*type);
}

// ---- host.h

void defineClass(std::string_view name, std::string_view superName, uint32_t dataSize) {
  addClass(name, superName.empty() ? nullptr : &needClass(superName), (dataSize + 15) & ~15u);
}
void hideClass(std::string_view name) { needClass(name).hidden = true; }
void showClass(std::string_view name) { needClass(name).hidden = false; }

bool isA(const Object& object, std::string_view name) {
  Class* type = findClass(name);
  return object && type && derives(liveCell(object.handle(), Form::object, "isA").type, type);
}

// ---- Operations

namespace operations {

ClassReference* objectType(const char* className) {
  Class* type = className ? findClass(className) : nullptr;
  return type && !type->hidden ? reinterpret_cast<ClassReference*>(type) : nullptr;
}

bool objectIsA(ObjectHandle* object, ClassReference* type) {
  if (!object || !type) return false;
  if (!isClassReference(type))
    die("RuntimeObjectIsa: the second argument is no class reference; pass what pluginObjectType "
        "answered");
  return derives(liveCell(object, Form::object, "RuntimeObjectIsa").type,
                 reinterpret_cast<Class*>(type));
}

} // namespace operations

} // namespace host
