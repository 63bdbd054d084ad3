// Calls the registered members of plug-in classes.
#include "internal.h"

#include "testbed/cocoa/crossing.h"

#include <cstring>

namespace host {

namespace {

constexpr uint32_t direct = 0xFFFFFFFF;

bool isShared(const Member& member) {
  return member.sort == Member::sharedMethod || member.sort == Member::sharedProperty;
}
bool isProperty(const Member& member) {
  return member.sort == Member::property || member.sort == Member::sharedProperty;
}

// The places of a member's functions in its entry.
uint32_t getterWord(const Member& member) { return member.entry[isProperty(member) ? 4 : 0]; }
uint32_t setterWord(const Member& member) { return member.entry[isProperty(member) ? 5 : 1]; }

const Member& needMember(const Class& type, std::string_view declaration, bool shared) {
  if (const Member* member = findMember(type, declaration, shared)) return *member;
  std::string message = "class " + type.name + " has no " + (shared ? "shared " : "") +
                        "member \"" + std::string(declaration) + "\"; it has:";
  for (const Class* each = &type; each; each = each->super)
    for (auto& member : each->members)
      if (isShared(*member) == shared) message += "\n  " + member->declaration.text;
  throw Error(message);
}

// What was answered must be what was declared.
void checkClass(const Value& value, const Parameter& declared, const std::string& member) {
  auto* object = std::get_if<Object>(&value.held());
  if (!object || !*object) return;
  Class* wanted =
      declared.isArray ? &builtInClass(Kind::array) : findClassAnyCase(declared.typeName);
  if (wanted && !derives(findCell(object->handle())->type, wanted))
    die(member + " answered " + label(object->handle()) + " where it declares " +
        declared.typeName + (declared.isArray ? "()" : ""));
}

struct Call {
  const Class& type;
  const Member& member;
  void* self;
};

Value perform(const Call& call, uint32_t function, const std::vector<Parameter>& parameters,
              const std::vector<Value>& arguments, const Parameter& result) {
  if (arguments.size() != parameters.size())
    throw Error("\"" + call.member.declaration.text + "\" of " + call.type.name + " takes " +
                std::to_string(parameters.size()) + " arguments, not " +
                std::to_string(arguments.size()));
  std::vector<uint32_t> words;
  std::vector<Object> temporaries;
  if (!isShared(call.member)) words.push_back(uint32_t(reinterpret_cast<uintptr_t>(call.self)));
  for (size_t i = 0; i < arguments.size(); ++i) {
    try {
      toWords(arguments[i], parameters[i], words, temporaries);
    } catch (const Error& error) {
      throw Error("argument " + std::to_string(i) + " of \"" + call.member.declaration.text +
                  "\": " + error.what());
    }
  }
  rethrowEscaped();
  if (tracing())
    emit({Step::memberCalled, call.type.name, call.member.declaration.text, printAll(arguments),
          call.self, currentThread()});
  auto* address = reinterpret_cast<void*>(uintptr_t(function));
  unsigned count = unsigned(words.size());
  uint32_t answer[2] = {};
  if (result.type == Type::single || result.type == Type::real) {
    double number = crossing_enter_fp(address, words.data(), count);
    float single = float(number);
    if (result.type == Type::single)
      memcpy(answer, &single, sizeof single);
    else
      memcpy(answer, &number, sizeof number);
  } else {
    uint64_t number = crossing_enter(address, words.data(), count);
    memcpy(answer, &number, sizeof number);
  }
  std::string who = "what " + call.type.name + "." + call.member.declaration.name + " answered";
  Value value = fromWords(result, answer, Reference::adopt, who.c_str());
  checkClass(value, result, call.type.name + "." + call.member.declaration.name);
  if (tracing())
    emit({Step::memberReturned, call.type.name, call.member.declaration.text,
          result.type == Type::none ? std::vector<std::string>{} : printAll({value}), call.self,
          currentThread()});
  return value;
}

uint32_t* place(const Call& call) {
  return reinterpret_cast<uint32_t*>(plainData(*findCell(call.self), *call.member.owner) +
                                     call.member.entry[6]);
}

Value read(const Call& call) {
  if (isProperty(call.member) && getterWord(call.member) == direct)
    return fromWords(call.member.declaration.result, place(call), Reference::lock, "a property");
  return perform(call, getterWord(call.member), call.member.declaration.parameters, {},
                 call.member.declaration.result);
}

void write(const Call& call, const Value& value) {
  const Parameter& type = call.member.declaration.result;
  uint32_t setter = setterWord(call.member);
  if (setter == 0 || type.type == Type::none)
    throw Error("\"" + call.member.declaration.text + "\" of " + call.type.name +
                " cannot be assigned");
  if (isProperty(call.member) && setter == direct) {
    std::vector<uint32_t> words;
    std::vector<Object> temporaries;
    toWords(value, type, words, temporaries);
    memcpy(place(call), words.data(), words.size() * 4);
    return;
  }
  perform(call, setter, {type}, {value}, {});
}

} // namespace

const Member* findMember(const Class& type, std::string_view declaration, bool shared) {
  for (const Class* each = &type; each; each = each->super)
    for (auto& member : each->members)
      if (isShared(*member) == shared && member->declaration.text == declaration)
        return member.get();
  // A bare name will do where it is no other member's.
  const Member* found = nullptr;
  for (const Class* each = &type; each; each = each->super)
    for (auto& member : each->members) {
      if (isShared(*member) != shared || !sameName(member->declaration.name, declaration)) continue;
      if (found && found->owner == each)
        throw Error("class " + type.name + " has several members \"" + std::string(declaration) +
                    "\"; give the whole declaration");
      if (!found) found = member.get();
    }
  return found;
}

Value invoke(const Object& object, std::string_view declaration, std::vector<Value> arguments) {
  const Class& type = *objectCell(object, "call").type;
  const Member& member = needMember(type, declaration, false);
  Object alive = object; // the plug-in may drop the last other reference to it
  if (isProperty(member)) {
    if (arguments.empty()) return read({type, member, object.handle()});
    throw Error("\"" + member.declaration.text + "\" is a property; use get and set");
  }
  return perform({type, member, object.handle()}, getterWord(member), member.declaration.parameters,
                 arguments, member.declaration.result);
}

Value invokeShared(std::string_view className, std::string_view declaration,
                   std::vector<Value> arguments) {
  const Class& type = needClass(className);
  const Member& member = needMember(type, declaration, true);
  return perform({type, member, nullptr}, getterWord(member), member.declaration.parameters,
                 arguments, member.declaration.result);
}

Value getValue(const Object& object, std::string_view declaration) {
  const Class& type = *objectCell(object, "get").type;
  if (!findMember(type, declaration, false))
    if (auto value = readProperty(object.handle(), declaration)) return *value;
  Object alive = object;
  return read({type, needMember(type, declaration, false), object.handle()});
}

void set(const Object& object, std::string_view declaration, const Value& value) {
  const Class& type = *objectCell(object, "set").type;
  if (!findMember(type, declaration, false) && writeProperty(object.handle(), declaration, value))
    return;
  Object alive = object;
  write({type, needMember(type, declaration, false), object.handle()}, value);
}

void* memberAddress(std::string_view className, std::string_view declaration, bool setter) {
  const Class& type = needClass(className);
  for (bool shared : {false, true})
    if (const Member* member = findMember(type, declaration, shared)) {
      uint32_t address = setter ? setterWord(*member) : getterWord(*member);
      return address == direct ? nullptr : reinterpret_cast<void*>(uintptr_t(address));
    }
  return nullptr;
}

} // namespace host
