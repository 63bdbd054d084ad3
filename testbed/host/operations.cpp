// The table of everything that plug-ins can call, with the resolver, absence, faults, counts and
// the log that come with it.
#include "operations.h"

#include <cstdio>
#include <ostream>

namespace host {

namespace {

enum Sort { operation, globalMethod, objectMethod, arrayFunction };

struct Row {
  Sort sort;
  Operation& operation;
};

template <auto Function> Row row(Sort sort, const char* name) {
  using Entry = Watched<Function>;
  Operation& operation = Entry::operation;
  operation.name = name;
  operation.address = reinterpret_cast<void*>(&Entry::call);
  operation.fallible = !std::is_void_v<decltype(
      []<typename R, typename... A>(R (*)(A...)) -> R { return R(); }(Function))>;
  return {sort, operation};
}

namespace o = operations;

const std::vector<Row>& table() {
  static const auto* rows = new std::vector<Row>{
      row<o::getRBVersion>(operation, "REALGetRBVersion"),
      row<o::registerPluginVersion>(operation, "RegisterPluginVersion"),
      row<o::registerClass>(operation, "PluginRegisterClass"),
      row<o::loadGlobalMethod>(operation, "REALLoadGlobalMethod"),
      row<o::loadObjectMethod>(operation, "REALLoadObjectMethod"),
      row<o::getEventInstance>(operation, "GetEventInstance"),

      row<o::newInstance>(operation, "PluginNewInstance"),
      row<o::lockObject>(operation, "REALLockObject"),
      row<o::unlockObject>(operation, "REALUnlockObject"),
      row<o::raiseException>(operation, "RuntimeRaiseException"),
      row<o::objectType>(operation, "pluginObjectType"),
      row<o::objectIsA>(operation, "RuntimeObjectIsa"),

      row<o::getPropInt>(operation, "REALGetPropValueInt"),
      row<o::getPropInt64>(operation, "REALGetPropValueInt64"),
      row<o::getPropSingle>(operation, "REALGetPropValueSingle"),
      row<o::getPropDouble>(operation, "REALGetPropValueDouble"),
      row<o::getPropString>(operation, "REALGetPropValueString"),
      row<o::getPropObject>(operation, "REALGetPropValueObject"),
      row<o::setPropInt>(operation, "REALSetPropValueInt"),
      row<o::setPropString>(operation, "REALSetPropValueString"),

      row<o::buildString>(operation, "REALBuildString"),
      row<o::lockString>(operation, "REALLockString"),
      row<o::unlockString>(operation, "REALUnlockString"),
      row<o::setStringEncoding>(operation, "REALSetStringEncoding"),
      row<o::getStringEncoding>(operation, "REALGetStringEncoding"),
      row<o::convertString>(operation, "REALConvertString"),
      row<o::getStringData>(operation, "PluginGetStringData"),
      row<o::disposeStringData>(operation, "PluginDisposeStringData"),
      row<o::getCString>(operation, "StringGetCString"),
      row<o::getStringCFString>(operation, "REALGetStringCFString"),
      row<o::lenB>(globalMethod, "LenB( s as string ) as integer"),

      row<o::stringToVariant>(operation, "StringToVariant"),
      row<o::int32ToVariant>(operation, "Int32ToVariant"),
      row<o::uint32ToVariant>(operation, "UInt32ToVariant"),
      row<o::int64ToVariant>(operation, "Int64ToVariant"),
      row<o::uint64ToVariant>(operation, "UInt64ToVariant"),
      row<o::singleToVariant>(operation, "SingleToVariant"),
      row<o::doubleToVariant>(operation, "DoubleToVariant"),
      row<o::booleanToVariant>(operation, "BooleanToVariant"),
      row<o::variantToString>(operation, "VariantToString"),
      row<o::variantToInt32>(operation, "VariantToInt32"),
      row<o::variantToInt64>(operation, "VariantToInt64"),
      row<o::variantToSingle>(operation, "VariantToSingle"),
      row<o::variantToDouble>(operation, "VariantToDouble"),
      row<o::typeOfVariant>(globalMethod, "VarType(value As Variant) As Int32"),

      row<o::createArray>(operation, "RuntimeArrayCreateSingleDimBoundedArray"),
      row<o::upperBoundOf>(operation, "RuntimeUBound"),
      row<o::insertProc>(operation, "RuntimeArrayDirectGetInsertProc"),
      row<o::getProc>(operation, "RuntimeArrayDirectGetGetProc"),
      row<o::insertObject>(arrayFunction, "array.insert Object"),
      row<o::elementInt32>(arrayFunction, "array.get Int32"),
      row<o::elementInt64>(arrayFunction, "array.get Int64"),
      row<o::elementSingle>(arrayFunction, "array.get Single"),
      row<o::elementDouble>(arrayFunction, "array.get Double"),
      row<o::elementBoolean>(arrayFunction, "array.get Boolean"),
      row<o::elementString>(arrayFunction, "array.get String"),
      row<o::elementObject>(arrayFunction, "array.get Object"),

      row<o::dictionarySet>(objectMethod,
                            "Dictionary.Value(key As Variant, Assigns _value As Variant)"),
      row<o::dictionaryGet>(objectMethod, "Dictionary.Value(key As Variant) As Variant"),
      row<o::dictionaryKey>(objectMethod, "Dictionary.Key(index As Integer) As Variant"),

      row<o::newMemoryBlock>(operation, "newMemoryBlock"),
      row<o::memoryBlockPointer>(operation, "memoryBlockGetPtr"),
      row<o::memoryBlockSize>(operation, "memoryBlockGetSize"),

      row<o::refFromFolderItem>(operation, "REALFSRefFromFolderItem"),
      row<o::specFromFolderItem>(operation, "REALFSSpecFromFolderItem"),
      row<o::folderItemFromParentRef>(operation, "REALFolderItemFromParentFSRef"),
      row<o::folderItemFromSpec>(operation, "FolderItemFromFSSpec"),
      row<o::trueItem>(objectMethod, "FolderItem.TrueItem(Index as integer) as Folderitem"),
  };
  return *rows;
}

const Row* findRow(std::string_view name) {
  static const auto* rows = [] {
    auto* map = new std::unordered_map<std::string_view, const Row*>;
    for (const Row& row : table()) map->emplace(row.operation.name, &row);
    return map;
  }();
  auto place = rows->find(name);
  return place == rows->end() ? nullptr : place->second;
}

Operation& need(std::string_view name) {
  Operation* found = findOperation(name);
  if (!found)
    throw Error("there is no operation \"" + std::string(name) +
                "\"; host::operationNames() lists them all");
  return *found;
}

// ---- Records beside the table, under hostMutex()

struct Numbering {
  std::map<std::string, int> lastOfClass;
  std::map<const void*, std::pair<uint32_t, int>> numbers; // handle: its own number, its label's
};

struct Records {
  std::map<std::string, uint64_t, std::less<>> lookups; // of names that are no operation's
  std::vector<LogEntry> log;
  Numbering numbering;
  uint64_t logNumber = 0; // of the present log, so that a late result does not land in the next
  uint64_t untilOverallFault = 0;
  bool logging = false;
  bool fired = false;
};
Records& records() {
  static auto* instance = new Records;
  return *instance;
}

std::atomic<uint64_t> performed, falliblePerformed;
std::atomic<bool> faultsSet, loggingOn, tracingOperations;

std::string logLabel(const void* handle) {
  Cell* cell = findCell(handle);
  if (!handle || !cell) return label(handle);
  Numbering& numbering = records().numbering;
  auto& [number, shown] = numbering.numbers[handle];
  if (number != cell->number || shown == 0) {
    number = cell->number;
    shown = ++numbering.lastOfClass[cell->type->name];
  }
  return cell->type->name + "#" + std::to_string(shown);
}

} // namespace

std::atomic<bool> watching{true};

// ---- Watched calls

CallNote::CallNote(Operation& operation) : operation_(operation) {
  ++performed;
  ++operation.calls;
  if (operation.fallible) ++falliblePerformed;
  if (faultsSet || operation.absent) {
    Guard guard(hostMutex());
    fails_ = operation.absent;
    if (operation.faults > 0) {
      if (operation.untilFault > 1)
        --operation.untilFault;
      else
        fails_ = true, --operation.faults, escape(std::exchange(operation.thrown, nullptr));
    }
    if (operation.fallible && records().untilOverallFault > 0 && --records().untilOverallFault == 0)
      fails_ = true;
    if (fails_) records().fired = true;
  }
  logged_ = loggingOn;
  traced_ = tracingOperations && tracing();
}

std::string CallNote::print(const void* handle) const {
  std::string printed;
  Guard guard(hostMutex());
  printed = logged_ ? logLabel(handle) : label(handle);
  Cell* cell = findCell(handle);
  if (cell && cell->state == State::live && cell->form == Form::string)
    printed += " " + quoted(static_cast<StringData*>(cell->payload)->bytes());
  return printed;
}

void CallNote::arguments(std::vector<std::string> printed) {
  if (traced_) emit({Step::operation, {}, operation_.name, printed, nullptr, currentThread()});
  if (!logged_) return;
  Guard guard(hostMutex());
  entry_ = records().log.size();
  logNumber_ = records().logNumber;
  records().log.push_back({operation_.name, std::move(printed), {}, fails_, currentThread()});
}

void CallNote::result(std::string printed) {
  if (!logged_) return;
  Guard guard(hostMutex());
  if (logNumber_ == records().logNumber && entry_ < records().log.size())
    records().log[entry_].result = std::move(printed);
}

// ---- Names

Operation* findOperation(std::string_view name) {
  const Row* row = findRow(name);
  return row ? &row->operation : nullptr;
}

bool absent(std::string_view name) { return need(name).absent; }

// Null when it is absent, or of another sort than the one that is asked for.
static void* lookUp(std::string_view name, std::optional<Sort> sort) {
  Guard guard(hostMutex());
  const Row* row = findRow(name);
  if (!row) return ++records().lookups[std::string(name)], nullptr;
  ++row->operation.lookups;
  bool found = !row->operation.absent && (!sort || row->sort == *sort);
  return found ? row->operation.address : nullptr;
}
void* lookUp(std::string_view name) { return lookUp(name, {}); }

void* resolve(const char* name) { return name ? lookUp(name, operation) : nullptr; }

void resetOperations(const Profile& profile) {
  Guard guard(hostMutex());
  for (const Row& row : table()) row.operation.absent = false;
  clearFaults();
  resetCounts();
  records().log.clear();
  records().logging = loggingOn = tracingOperations = false;
  setWatching(true);
  auto lacks = [](const char* name) { need(name).absent = true; };
  if (profile.version == 0) lacks("REALGetRBVersion");
  if (profile.offersStringData) {
    lacks("StringGetCString");
  } else {
    lacks("PluginGetStringData");
    lacks("PluginDisposeStringData");
  }
}

// ---- host.h

std::vector<std::string> operationNames() {
  std::vector<std::string> names;
  for (const Row& row : table()) names.push_back(row.operation.name);
  return names;
}

bool fallible(std::string_view name) { return need(name).fallible; }
void makeAbsent(std::string_view name) { need(name).absent = true; }
void makePresent(std::string_view name) { need(name).absent = false; }

void failCall(std::string_view name, unsigned nth, unsigned count) {
  if (nth == 0) throw Error("failCall: calls are counted from 1");
  Operation& operation = need(name);
  Guard guard(hostMutex());
  operation.untilFault = nth;
  operation.faults = count;
  records().fired = false;
  faultsSet = true;
}
void failAlways(std::string_view name) {
  failCall(name);
  need(name).faults = UINT64_MAX;
}
void throwFromCall(std::string_view name, void* object) {
  failCall(name);
  Guard guard(hostMutex());
  need(name).thrown = object;
}
void failNthOperation(uint64_t n) {
  Guard guard(hostMutex());
  records().untilOverallFault = n;
  records().fired = false;
  faultsSet = true;
}
bool faultFired() {
  Guard guard(hostMutex());
  return records().fired;
}
void clearFaults() {
  Guard guard(hostMutex());
  faultsSet = false;
  records().untilOverallFault = 0;
  records().fired = false;
  for (const Row& row : table()) {
    row.operation.untilFault = row.operation.faults = 0;
    autorelease(std::exchange(row.operation.thrown, nullptr));
  }
}

uint64_t calls(std::string_view name) { return need(name).calls; }
uint64_t lookups(std::string_view name) {
  Guard guard(hostMutex());
  if (const Row* row = findRow(name)) return row->operation.lookups;
  auto place = records().lookups.find(name);
  return place == records().lookups.end() ? 0 : place->second;
}
uint64_t operationsPerformed() { return performed; }
uint64_t fallibleOperationsPerformed() { return falliblePerformed; }
void resetCounts() {
  Guard guard(hostMutex());
  for (const Row& row : table()) row.operation.calls = row.operation.lookups = 0;
  records().lookups.clear();
  performed = falliblePerformed = 0;
}

void setWatching(bool on) {
  watching = on;
  setStacks(on);
}

std::string LogEntry::text() const {
  std::string line = name + "(";
  for (size_t i = 0; i < arguments.size(); ++i) line += (i ? ", " : "") + arguments[i];
  line += ")";
  if (failed) line += " fails";
  if (!result.empty()) line += " -> " + result;
  return line;
}
std::ostream& operator<<(std::ostream& out, const LogEntry& entry) { return out << entry.text(); }

void startLog() {
  Guard guard(hostMutex());
  records().log.clear();
  records().numbering = {};
  ++records().logNumber;
  loggingOn = true;
}
std::vector<LogEntry> stopLog() {
  Guard guard(hostMutex());
  loggingOn = false;
  ++records().logNumber;
  return std::exchange(records().log, {});
}
std::vector<LogEntry> currentLog(size_t from) {
  Guard guard(hostMutex());
  const std::vector<LogEntry>& log = records().log;
  return {log.begin() + ptrdiff_t(std::min(from, log.size())), log.end()};
}

void traceOperations(bool on) { tracingOperations = on; }

// ---- Methods by declaration

namespace operations {

void* loadGlobalMethod(const char* declaration, Opaque* module) {
  return declaration && !module ? lookUp(declaration, globalMethod) : nullptr;
}

void* loadObjectMethod(ObjectHandle* object, const char* declaration) {
  if (!object || !declaration) return nullptr;
  Cell& cell = liveCell(object, Form::object, "REALLoadObjectMethod");
  if (objectLacks(object, declaration)) return nullptr;
  for (Class* type = cell.type; type; type = type->super)
    if (void* address = lookUp(type->name + "." + declaration)) return address;
  return nullptr;
}

} // namespace operations

} // namespace host
