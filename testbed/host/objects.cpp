// Objects: made, locked, destroyed.
#include "operations.h"

#include <cstring>

namespace host {

namespace {

// Before and behind the data of plug-in classes; a plug-in that writes beside its data spoils it.
constexpr uint8_t canary = 0xB5;
constexpr uint32_t tail = 16;

uint32_t dataEnd(const Class& type) {
  return profile().dataOffset + type.dataStart + type.dataSize;
}

void checkBorders(Cell& cell) {
  auto spoiled = [&](uint32_t from, uint32_t to) {
    for (uint32_t i = from; i < to; ++i)
      if (cell.body()[i] != canary) return true;
    return false;
  };
  const char* where = spoiled(0, profile().dataOffset)              ? "before"
                      : spoiled(dataEnd(*cell.type), cell.bodySize) ? "behind"
                                                                    : nullptr;
  if (where)
    die(label(cell.handle()) + ": a plug-in wrote " + where +
            " the object's data, which begins forSystemUse bytes after the handle",
        "it was made here", cell.born);
}

thread_local void* escaped = nullptr;

struct PluginCall {
  uint32_t function, handle;
};

void runDestructors(Cell& cell) {
  for (Class* type = cell.type; type; type = type->super)
    for (auto& member : type->members)
      if (member->sort == Member::method && member->declaration.text == "Destructor") {
        if (tracing())
          emit({Step::memberCalled,
                cell.type->name,
                "Destructor",
                {},
                cell.handle(),
                currentThread()});
        callDeferring(member->entry[0], cell.handle());
        if (tracing())
          emit({Step::memberReturned,
                cell.type->name,
                "Destructor",
                {},
                cell.handle(),
                currentThread()});
      }
  for (Class* type = cell.type; type; type = type->super)
    if (type->destructor) callDeferring(type->destructor, cell.handle());
}

void destroy(Cell& cell) {
  cell.references = 1;
  cell.state = State::dying;
  runDestructors(cell);
  if (int count = cell.references; count != 1)
    die(label(cell.handle()) + ": its destructors left " + std::to_string(count - 1) +
            " references to it behind, but it goes now",
        "its destruction began here", cell.died);
  checkBorders(cell);
  buryCell(cell);
}

void unlock(const void* handle, const char* who) {
  if (dropReference(handle, Form::object, who)) destroy(*findCell(handle));
}

void constructFrom(const Class& type, Cell& cell) {
  if (type.super) constructFrom(*type.super, cell);
  if (type.constructor && !hasEscaped()) callDeferring(type.constructor, cell.handle());
}

} // namespace

void escape(void* thrown) {
  if (thrown && escaped)
    autorelease(thrown);
  else if (thrown)
    escaped = thrown;
}
bool hasEscaped() { return escaped != nullptr; }

void rethrowEscaped() {
  if (void* object = std::exchange(escaped, nullptr)) throwNatively(object);
}

void callDeferring(uint32_t function, const void* handle) {
  PluginCall call{function, uint32_t(reinterpret_cast<uintptr_t>(handle))};
  void* thrown = catchThrow(
      [](void* context) {
        auto* call = static_cast<PluginCall*>(context);
        crossing_enter(reinterpret_cast<void*>(uintptr_t(call->function)), &call->handle, 1);
      },
      &call);
  escape(thrown);
}

Thrown catching(const std::function<void()>& body) {
  rethrowEscaped();
  void* object = catchThrow(
      [](void* context) {
        (*static_cast<const std::function<void()>*>(context))();
        rethrowEscaped();
      },
      const_cast<std::function<void()>*>(&body));
  if (void* later = std::exchange(escaped, nullptr)) autorelease(later);
  if (!object) return {};
  autorelease(object);
  auto [className, text] = describeCocoa(object);
  return {object, className, text};
}

std::unique_ptr<Payload> newPayload(Kind kind) {
  switch (kind) {
  case Kind::plain:
  case Kind::string:
    return nullptr;
  case Kind::boxed:
    return std::make_unique<Boxed>();
  case Kind::array:
    return std::make_unique<Array>();
  case Kind::date:
    return std::make_unique<Date>();
  case Kind::dictionary:
    return std::make_unique<Dictionary>();
  case Kind::memoryBlock:
    return std::make_unique<MemoryBlock>();
  case Kind::folderItem:
    return std::make_unique<FolderItem>();
  case Kind::exception:
    return std::make_unique<ExceptionData>();
  }
  return nullptr;
}

Cell& newObject(Class& type) {
  Cell& cell = allocateCell(Form::object, type, dataEnd(type) + tail);
  memset(cell.body(), canary, profile().dataOffset);
  memset(cell.body() + dataEnd(type), canary, cell.bodySize - dataEnd(type));
  cell.payload = newPayload(type.kind).release();
  return cell;
}

void construct(Cell& cell) { constructFrom(*cell.type, cell); }

uint8_t* plainData(Cell& cell, const Class& type) {
  return cell.body() + profile().dataOffset + type.dataStart;
}

Cell& objectCell(const Object& object, const char* who) {
  if (!object) throw Error(std::string(who) + ": the object is nil");
  return liveCell(object.handle(), Form::object, who);
}

void ObjectKind::lock(void* handle) { ++liveCell(handle, Form::object, "lock").references; }
void ObjectKind::drop(void* handle) noexcept { host::unlock(handle, "unlock"); }
void ObjectKind::unlock(void* handle) {
  host::unlock(handle, "unlock");
  rethrowEscaped();
}

// ---- host.h

int referenceCount(const Object& object) {
  return object ? liveCell(object.handle(), Form::object, "referenceCount").references.load() : 0;
}

std::string className(const Object& object) {
  return object ? liveCell(object.handle(), Form::object, "className").type->name : "nil";
}

void* data(const Object& object, std::string_view name) {
  Cell& cell = objectCell(object, "data");
  const Class* type = cell.type;
  if (name.empty())
    while (type->super) type = type->super;
  else if (!derives(type, &needClass(name)))
    throw Error(cell.type->name + " is no " + std::string(name));
  return plainData(cell, name.empty() ? *type : needClass(name));
}

Object create(std::string_view className) {
  rethrowEscaped();
  Object object = Object::adopt(newObject(needClass(className)).handle());
  construct(*findCell(object.handle()));
  if (hasEscaped()) object = nullptr;
  rethrowEscaped();
  return object;
}

// ---- Operations

namespace operations {

ObjectHandle* newInstance(const char* className) {
  Class* type = className ? findClass(className) : nullptr;
  if (!type || type->hidden) return nullptr;
  Object object = Object::adopt(newObject(*type).handle());
  construct(*findCell(object.handle()));
  if (hasEscaped()) return nullptr;
  return handleOf(std::move(object));
}

void lockObject(ObjectHandle* object) {
  if (object) ++liveCell(object, Form::object, "REALLockObject").references;
}

void unlockObject(ObjectHandle* object) {
  if (object) host::unlock(object, "REALUnlockObject");
}

} // namespace operations

} // namespace host
