// Subclasses of the host program, and the native functions that plug-ins call to raise an event.
#include "operations.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <deque>
#include <sys/mman.h>

namespace host {

namespace {

// What a generated function stands for.
struct Thunk {
  Class* type;
  const EventType* event;
  uint8_t* code;
};

struct Records {
  std::vector<EventRecord> raised;
  std::deque<Thunk> thunks;  // the generated code refers to them for ever
  std::vector<Thunk*> spare; // of classes that are gone
  uint8_t* page = nullptr;
  size_t used = 0;
};
Records& records() {
  static auto* instance = new Records;
  return *instance;
}

bool answersFloating(const EventType& event) {
  Type type = event.declaration.result.type;
  return type == Type::single || type == Type::real;
}

struct Raising {
  const Thunk* thunk;
  const uint32_t* words; // target first
  uint32_t answer[2];
};

void raise(void* context) {
  auto& raising = *static_cast<Raising*>(context);
  const Declaration& declaration = raising.thunk->event->declaration;
  std::string who = "event " + declaration.name;
  auto* target = reinterpret_cast<void*>(uintptr_t(raising.words[0]));
  if (!target) die(who + ": the target is nil; the instance comes first");
  Cell& cell = liveCell(target, Form::object, who.c_str());
  if (!derives(cell.type, raising.thunk->type))
    die(who + ": raised on " + label(target) + ", but the handler asked for is that of " +
        raising.thunk->type->name);

  Event event{Object::lock(target), declaration.text, {}, currentThread()};
  const uint32_t* words = raising.words + 1;
  for (const Parameter& parameter : declaration.parameters) {
    event.arguments.push_back(fromWords(parameter, words, Reference::lock, who.c_str()));
    words += wordsOf(parameter.type);
  }
  std::shared_ptr<const Handler> handler;
  const bool recorded = watching;
  size_t record = 0;
  {
    Guard guard(hostMutex());
    for (HandlerSlot& slot : raising.thunk->type->handlers)
      if (slot.event == raising.thunk->event) handler = slot.handler;
  }
  if (recorded) {
    Guard guard(hostMutex());
    record = records().raised.size();
    records().raised.push_back(
        {cell.type->name, declaration.text, printAll(event.arguments), {}, event.thread});
  }
  if (tracing())
    emit({Step::eventRaised, cell.type->name, declaration.text, printAll(event.arguments), target,
          event.thread});
  rethrowEscaped();

  Value value;
  try {
    value = (*handler)(event);
  } catch (const std::exception& error) {
    die("the handler of " + declaration.text + " threw: " + error.what());
  }

  const Parameter& result = declaration.result;
  std::string printed;
  if (result.type != Type::none && (recorded || tracing())) printed = print(value);
  std::vector<uint32_t> answer;
  std::vector<Object> temporaries;
  try {
    toWords(value, result, answer, temporaries);
  } catch (const Error& error) {
    die("the handler of " + declaration.text + " answered " + print(value) + ": " + error.what());
  }
  // What a handler answers is locked once for the plug-in.
  auto* handle = reinterpret_cast<void*>(uintptr_t(answer.empty() ? 0 : answer[0]));
  if (handle && result.type == Type::string) StringKind::lock(handle);
  if (handle && (result.type == Type::object || result.type == Type::variant))
    ObjectKind::lock(handle);
  std::copy(answer.begin(), answer.end(), raising.answer);
  if (recorded) {
    Guard guard(hostMutex());
    if (record < records().raised.size()) records().raised[record].answer = printed;
  }
  if (tracing())
    emit({Step::eventAnswered, cell.type->name, declaration.text,
          printed.empty() ? std::vector<std::string>{} : std::vector{printed}, target,
          event.thread});
  // In this order, since the last reference to the target may be the event's own.
  value = {};
  temporaries.clear();
  event = {};
  rethrowEscaped();
}

} // namespace

// Called by the two entries below. Nothing with a destructor may stand here: a throw leaves
// crossing_leave by longjmp.
extern "C" {
__attribute__((visibility("hidden"), used)) uint64_t hostRaise(const void* thunk,
                                                               const uint32_t* words) {
  Raising raising{static_cast<const Thunk*>(thunk), words, {}};
  crossing_leave(raise, &raising);
  return uint64_t(raising.answer[1]) << 32 | raising.answer[0];
}

__attribute__((visibility("hidden"), used)) double hostRaiseFloating(const void* thunk,
                                                                     const uint32_t* words) {
  Raising raising{static_cast<const Thunk*>(thunk), words, {}};
  crossing_leave(raise, &raising);
  double real;
  float single;
  memcpy(&real, raising.answer, sizeof real);
  memcpy(&single, raising.answer, sizeof single);
  return raising.thunk->event->declaration.result.type == Type::single ? single : real;
}

// A generated function arrives here with its Thunk in eax and the caller's words on the stack.
#define ENTRY(name, target)                                                                        \
  __attribute__((naked, visibility("hidden"))) void name() {                                       \
    asm("push %ebp\n"                                                                              \
        "mov %esp, %ebp\n"                                                                         \
        "and $-16, %esp\n"                                                                         \
        "lea 8(%ebp), %ecx\n"                                                                      \
        "sub $8, %esp\n"                                                                           \
        "push %ecx\n"                                                                              \
        "push %eax\n"                                                                              \
        "call " target "\n"                                                                        \
        "leave\n"                                                                                  \
        "ret\n");                                                                                  \
  }
ENTRY(hostRaiseEntry, "hostRaise")
ENTRY(hostRaiseFloatingEntry, "hostRaiseFloating")
#undef ENTRY
}

namespace {

constexpr size_t codeSize = 16;

Thunk& newThunk() {
  constexpr size_t pageSize = 4096;
  Records& all = records();
  if (!all.spare.empty()) {
    Thunk* thunk = all.spare.back();
    all.spare.pop_back();
    return *thunk;
  }
  if (!all.page || all.used + codeSize > pageSize) {
    void* page = mmap(nullptr, pageSize, PROT_READ | PROT_WRITE | PROT_EXEC,
                      MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (page == MAP_FAILED) die("no memory that may hold code for event handlers");
    all.page = static_cast<uint8_t*>(page);
    all.used = 0;
  }
  all.used += codeSize;
  return all.thunks.emplace_back(Thunk{nullptr, nullptr, all.page + all.used - codeSize});
}

// mov eax, thunk; mov ecx, entry; jmp ecx
void* generate(Class& type, const EventType& event) {
  Thunk& thunk = newThunk();
  thunk = {&type, &event, thunk.code};
  auto* address = &thunk;
  auto* entry = answersFloating(event) ? hostRaiseFloatingEntry : hostRaiseEntry;
  thunk.code[0] = 0xB8;
  memcpy(thunk.code + 1, &address, 4);
  thunk.code[5] = 0xB9;
  memcpy(thunk.code + 6, &entry, 4);
  thunk.code[10] = 0xFF;
  thunk.code[11] = 0xE1;
  return thunk.code;
}

const EventType& needEvent(const Class& type, std::string_view declaration) {
  for (const Class* each = &type; each; each = each->super)
    for (auto& event : each->events)
      if (event->declaration.text == declaration || sameName(event->declaration.name, declaration))
        return *event;
  std::string message =
      "class " + type.name + " has no event \"" + std::string(declaration) + "\"; it has:";
  for (const Class* each = &type; each; each = each->super)
    for (auto& event : each->events) message += "\n  " + event->declaration.text;
  throw Error(message);
}

// The event of TARGET by the word that a plug-in gave; ends the process when the host never put
// that word into an entry of TARGET's classes.
const EventType& eventOfWord(const Class& target, uint32_t word) {
  for (const Class* type = &target; type; type = type->super)
    for (auto& event : type->events)
      if (event->word() == word) {
        if (event->entry[1] != word)
          die("GetEventInstance: the registered entry of " + event->declaration.name +
              " has lost the word that the host put into it");
        return *event;
      }
  const EventType* found = nullptr;
  std::string instead;
  forEachClass([&](Class& type) {
    for (auto& event : type.events) {
      if (event->word() == word) found = event.get();
      if (uint32_t(reinterpret_cast<uintptr_t>(event->entry)) == word)
        instead = ". It is the address of the registered entry of " + type.name + "." +
                  event->declaration.name + ": pass the second word of that entry";
    }
  });
  char number[16];
  snprintf(number, sizeof number, "0x%08X", word);
  if (found)
    die("GetEventInstance: " + target.name + " has no event " + found->declaration.name + ", " +
        found->owner->name + " has");
  die(std::string("GetEventInstance: ") + number +
      " is no word that the host put into an event entry" + instead);
}

} // namespace

const Value& Event::value(size_t index) const {
  if (index < arguments.size()) return arguments[index];
  throw Error("\"" + declaration + "\" has no argument " + std::to_string(index));
}

void handle(std::string_view className, std::string_view declaration, Handler handler) {
  Class& type = needClass(className);
  if (type.registered || type.builtIn)
    throw Error(type.name + " is no class of the host program; declare a subclass of it");
  const EventType& event = needEvent(type, declaration);
  auto shared = std::make_shared<const Handler>(std::move(handler));
  Guard guard(hostMutex());
  for (HandlerSlot& slot : type.handlers)
    if (slot.event == &event) {
      slot.handler = shared;
      return;
    }
  type.handlers.push_back({&event, shared, generate(type, event)});
}

void forgetHandlers(Class& type) {
  for (Thunk& thunk : records().thunks)
    if (thunk.type == &type) records().spare.push_back(&thunk), thunk.type = nullptr;
}

void subclass(std::string_view name, std::string_view superName, Handlers handlers) {
  addClass(name, &needClass(superName), 0);
  for (auto& [declaration, handler] : handlers) handle(name, declaration, std::move(handler));
}

std::vector<EventRecord> events() {
  Guard guard(hostMutex());
  return records().raised;
}
void clearEvents() {
  Guard guard(hostMutex());
  records().raised.clear();
}
void resetEvents() { clearEvents(); }

namespace operations {

void* getEventInstance(ObjectHandle* object, uint32_t word) {
  if (!object) return nullptr;
  Cell& cell = liveCell(object, Form::object, "GetEventInstance");
  const EventType& event = eventOfWord(*cell.type, word);
  Guard guard(hostMutex());
  for (Class* type = cell.type; type; type = type->super)
    for (HandlerSlot& slot : type->handlers)
      if (slot.event == &event) return slot.thunk;
  return nullptr;
}

} // namespace operations

} // namespace host
