// Takes a plug-in's class definitions: raw 32-bit words at the positions that the interface version
// prescribes. Whatever is not as prescribed ends the process with a message that names the word.
#include "operations.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>

namespace host {

namespace {

namespace field {
enum {
  version,
  name,
  superName,
  dataSize,
  forSystemUse,
  constructor,
  destructor,
  properties,
  propertyCount,
  methods,
  methodCount,
  events,
  eventCount,
  eventInstances,
  eventInstanceCount,
  interfaces,
  bindDescriptions,
  bindDescriptionCount,
  constants,
  constantCount,
  flags,
  sharedProperties,
  sharedPropertyCount,
  sharedMethods,
  sharedMethodCount,
  newerWords
};
}
namespace property {
enum {
  group,
  name,
  type,
  flags,
  getter,
  setter,
  param,
  editor,
  enumCount,
  enumEntries,
  attributes
};
}
namespace method {
enum { function, setterFunction, declaration, flags, attributes };
}
namespace event {
enum { declaration, forSystemUse, attributes };
}
namespace constant {
enum { declaration, reserved1, reserved2, attributes };
}

struct Layout {
  uint32_t record, property, method, event, constant;
};
constexpr Layout version9{25, 10, 4, 2, 3};
constexpr Layout newer{29, 12, 6, 4, 5};
const Layout& layoutOf(uint32_t version) { return version == 9 ? version9 : newer; }

constexpr uint32_t direct = 0xFFFFFFFF; // getter and setter of a property the host reads itself

struct TableFields {
  Registered::Table table;
  const char* name;
  int array, count;
  uint32_t Layout::*stride;
};
constexpr TableFields tables[] = {
    {Registered::properties, "property", field::properties, field::propertyCount,
     &Layout::property},
    {Registered::methods, "method", field::methods, field::methodCount, &Layout::method},
    {Registered::events, "event", field::events, field::eventCount, &Layout::event},
    {Registered::constants, "constant", field::constants, field::constantCount, &Layout::constant},
    {Registered::sharedProperties, "shared property", field::sharedProperties,
     field::sharedPropertyCount, &Layout::property},
    {Registered::sharedMethods, "shared method", field::sharedMethods, field::sharedMethodCount,
     &Layout::method},
};

std::atomic<uint32_t> announced{0};

struct Order {
  std::vector<std::string> names;
};
Order& order() {
  static auto* instance = new Order;
  return *instance;
}

// What of this process may be read and run, so that a pointer taken from the wrong word is told
// from a right one without touching it. Read from the system when an address is not in what is
// known: a companion registers classes by the hundred, and nothing is unmapped meanwhile. Under the
// host's lock.
class Memory {
public:
  bool readable(uint32_t start, uint32_t bytes) {
    return bytes <= extent(start, &Part::readable) ||
           (refresh(), bytes <= extent(start, &Part::readable));
  }
  void refresh() {
    parts_.clear();
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
      unsigned long start, end;
      char permissions[5];
      if (sscanf(line.c_str(), "%lx-%lx %4s", &start, &end, permissions) == 3)
        parts_.push_back({start, end, permissions[0] == 'r', permissions[2] == 'x'});
    }
  }
  bool runnable(uint32_t address) {
    return extent(address, &Part::runnable) || (refresh(), extent(address, &Part::runnable));
  }
  // Null when the word is no pointer to a text of at most 400 printable characters.
  const char* text(uint32_t word) {
    auto* text = reinterpret_cast<const unsigned char*>(uintptr_t(word));
    unsigned long known = 0;
    for (uint32_t length = 0; length < 400; ++length) {
      if (length == known) {
        if (!readable(word + length, 1)) return nullptr;
        known = length + extent(word + length, &Part::readable);
      }
      unsigned char c = text[length];
      if (c == 0) return length ? reinterpret_cast<const char*>(text) : nullptr;
      if (c < 0x20 || c == 0x7F) return nullptr;
    }
    return nullptr;
  }

private:
  struct Part {
    unsigned long start, end;
    bool readable, runnable;
  };

  // How many bytes from this one on may be used so.
  unsigned long extent(unsigned long start, bool Part::*use) const {
    auto part = std::partition_point(parts_.begin(), parts_.end(),
                                     [=](const Part& each) { return each.end <= start; });
    unsigned long end = start;
    for (; part != parts_.end() && part->start <= end && (*part).*use; ++part) end = part->end;
    return end - start;
  }
  std::vector<Part> parts_; // by address
};

Memory& memory() {
  static auto* memory = new Memory;
  return *memory;
}

// One record under examination.
class Examination {
public:
  Examination(uint32_t* record, uint32_t version)
      : version_(version), layout_(layoutOf(version)), record_(record) {
    if (version == 0) fail("RegisterPluginVersion was not called before");
    if (!record) fail("the record is null");
    if (word(record) % 4) fail("the record is not aligned to 4 bytes");
    if (!memory().readable(word(record), layout_.record * 4)) fail("the record cannot be read");
    words_.assign(record, record + layout_.record);
    examine();
  }

  void enter() {
    std::string superName = words_[field::superName] ? text(words_[field::superName]) : "";
    Class* super = superName.empty() ? nullptr : findClass(superName);
    if (!superName.empty() && !super)
      fail("its superclass \"" + superName + "\" is unknown; register that first");
    if (findClass(name_)) fail("a class of this name is registered already");
    Class& type = addClass(name_, super, words_[field::dataSize]);
    type.constructor = words_[field::constructor];
    type.destructor = words_[field::destructor];
    type.registered =
        std::make_unique<Registered>(Registered{name_, superName, version_, record_, words_});
    for (const TableFields& each : tables) enterTable(type, each);
    record_[field::forSystemUse] = profile().dataOffset + type.dataStart;
    order().names.push_back(name_);
  }

private:
  [[noreturn]] void fail(const std::string& what) {
    die("PluginRegisterClass" + (name_.empty() ? "" : " of " + name_) + ": " + what);
  }
  static uint32_t word(const void* pointer) {
    return uint32_t(reinterpret_cast<uintptr_t>(pointer));
  }
  const char* text(uint32_t word) const { return memory().text(word); }
  // The parts of a message are put together only when it is needed: a record has hundreds of them.
  template <typename... Part> void require(bool holds, const Part&... parts) {
    if (!holds) fail((std::string() + ... + printed(parts)));
  }
  struct Found {
    uint32_t word;
  };
  static Found found(uint32_t word) { return {word}; }
  struct Entry {
    const char* table;
    uint32_t index;
  };
  static std::string printed(const char* text) { return text; }
  static std::string printed(const std::string& text) { return text; }
  static std::string printed(uint32_t number) { return std::to_string(number); }
  static std::string printed(Found found) {
    char number[32];
    snprintf(number, sizeof number, ", found 0x%08X", found.word);
    return number;
  }
  static std::string printed(Entry entry) {
    return std::string(entry.table) + " " + std::to_string(entry.index);
  }

  void examine() {
    require(words_[field::version] == version_, "word 0 must be the announced interface version ",
            version_, found(words_[field::version]));
    const char* name = text(words_[field::name]);
    require(name, "word 1 must point to the class name", found(words_[field::name]));
    name_ = name;
    require(!words_[field::superName] || text(words_[field::superName]),
            "word 2 must be null or point to the superclass name", found(words_[field::superName]));
    require(words_[field::dataSize] % 4 == 0 && words_[field::dataSize] <= 4096,
            "word 3 must be a size in bytes, a multiple of 4 up to 4096",
            found(words_[field::dataSize]));
    require(words_[field::forSystemUse] == 0, "word 4 is the host's and must be 0",
            found(words_[field::forSystemUse]));
    for (int i : {field::constructor, field::destructor})
      require(!words_[i] || memory().runnable(words_[i]), "word ", i, " must be null or a function",
              found(words_[i]));
    for (int i : {field::eventInstances, field::eventInstanceCount, field::interfaces,
                  field::bindDescriptions, field::bindDescriptionCount})
      require(words_[i] == 0, "word ", i, " must be 0", found(words_[i]));
    for (uint32_t i = field::newerWords; i < layout_.record; ++i)
      require(words_[i] == 0, "word ", i, " must be 0", found(words_[i]));
    for (const TableFields& each : tables) examineTable(each);
  }

  void examineTable(const TableFields& fields) {
    uint32_t array = words_[fields.array], count = words_[fields.count];
    uint32_t stride = layout_.*fields.stride;
    uint32_t place = uint32_t(fields.array);
    require(count <= 1000, "word ", fields.count, " must be a count of entries", found(count));
    require((array == 0) == (count == 0), "word ", place,
            " must be null exactly when its count is 0", found(array), " with count ", count);
    require(array % 4 == 0, "word ", place, " must be aligned to 4 bytes", found(array));
    require(count == 0 || memory().readable(array, count * stride * 4), "word ", place,
            " must point to ", count, " entries of ", stride, " words", found(array));
    for (uint32_t i = 0; i < count; ++i)
      examineEntry(fields, i, reinterpret_cast<uint32_t*>(uintptr_t(array)) + i * stride);
  }

  void examineEntry(const TableFields& fields, uint32_t index, const uint32_t* entry) {
    uint32_t stride = layout_.*fields.stride;
    Entry where{fields.name, index};
    auto zero = [&](uint32_t i) {
      require(entry[i] == 0, where, " word ", i, " must be 0", found(entry[i]));
    };
    auto function = [&](uint32_t i, bool optional) {
      require((optional && entry[i] == 0) || memory().runnable(entry[i]), where, " word ", i,
              " must be a function", found(entry[i]));
    };
    auto declaration = [&](uint32_t i) {
      require(text(entry[i]), where, " word ", i, " must point to a declaration", found(entry[i]));
    };
    switch (fields.table) {
    case Registered::properties:
    case Registered::sharedProperties:
      require(!entry[property::group] || text(entry[property::group]), where,
              " word 0 must be null or a text", found(entry[property::group]));
      for (uint32_t i : {property::name, property::type})
        require(text(entry[i]), where, " word ", i, " must be a text", found(entry[i]));
      for (uint32_t i : {property::getter, property::setter})
        if (entry[i] != direct) function(i, i == property::setter);
      if (entry[property::getter] == direct || entry[property::setter] == direct)
        require(uint64_t(entry[property::param]) + 4 <= words_[field::dataSize], where,
                " word 6 must be a place in the data", found(entry[property::param]));
      for (uint32_t i = property::editor; i < stride; ++i) zero(i);
      break;
    case Registered::methods:
    case Registered::sharedMethods:
      function(method::function, false);
      function(method::setterFunction, true);
      declaration(method::declaration);
      for (uint32_t i = method::attributes; i < stride; ++i) zero(i);
      break;
    case Registered::events:
      declaration(event::declaration);
      for (uint32_t i = event::forSystemUse; i < stride; ++i) zero(i);
      break;
    case Registered::constants: {
      const char* declared = text(entry[constant::declaration]);
      require(declared && strchr(declared, '='), where, " word 0 must point to \"name = value\"",
              found(entry[constant::declaration]));
      for (uint32_t i = constant::reserved1; i < stride; ++i) zero(i);
      break;
    }
    }
  }

  void enterTable(Class& type, const TableFields& fields) {
    Registered::Entries entries = type.registered->table(fields.table);
    for (uint32_t i = 0; i < entries.count; ++i) {
      auto* entry = const_cast<uint32_t*>(entries[i]);
      auto declaration = [&](uint32_t word, const std::string& declared) {
        std::optional<Declaration> parsed = parseDeclaration(declared);
        if (!parsed)
          require(false, Entry{fields.name, i}, " word ", word,
                  " is no declaration: ", quoted(declared));
        return *parsed;
      };
      auto addMember = [&](Member::Sort sort, uint32_t word, const std::string& declared) {
        type.members.push_back(
            std::make_unique<Member>(Member{sort, declaration(word, declared), entry, &type}));
      };
      switch (fields.table) {
      case Registered::events: {
        auto added = std::make_unique<EventType>(EventType{
            declaration(event::declaration, text(entry[event::declaration])), entry, &type});
        entry[event::forSystemUse] = added->word();
        type.events.push_back(std::move(added));
        break;
      }
      case Registered::methods:
        addMember(Member::method, method::declaration, text(entry[method::declaration]));
        break;
      case Registered::sharedMethods:
        addMember(Member::sharedMethod, method::declaration, text(entry[method::declaration]));
        break;
      case Registered::properties:
      case Registered::sharedProperties:
        addMember(fields.table == Registered::properties ? Member::property
                                                         : Member::sharedProperty,
                  property::name,
                  std::string(text(entry[property::name])) + " as " + text(entry[property::type]));
        break;
      case Registered::constants:
        break;
      }
    }
  }

  uint32_t version_;
  const Layout& layout_;
  uint32_t* record_;
  std::vector<uint32_t> words_;
  std::string name_;
};

int32_t newestInterface() {
  double version = profile().version;
  return version >= 2013.03 ? 12 : version >= 2013.0 ? 11 : version >= 2012.0 ? 10 : 9;
}

} // namespace

void resetRegistration() {
  Guard guard(hostMutex());
  announced = 0;
  order().names.clear();
}

uint32_t announcedVersion() { return announced; }

const Registered* registered(std::string_view name) {
  Class* type = findClass(name);
  return type ? type->registered.get() : nullptr;
}

std::vector<std::string> registrationOrder() {
  Guard guard(hostMutex());
  return order().names;
}

Registered::Entries Registered::table(Table table) const {
  for (const TableFields& fields : tables)
    if (fields.table == table)
      return {reinterpret_cast<const uint32_t*>(uintptr_t(words[size_t(fields.array)])),
              words[size_t(fields.count)], layoutOf(version).*fields.stride};
  return {};
}

std::vector<std::string> Registered::declarations(Table table) const {
  int position = table == methods || table == sharedMethods         ? int(method::declaration)
                 : table == properties || table == sharedProperties ? int(property::name)
                                                                    : 0;
  Entries entries = this->table(table);
  std::vector<std::string> result;
  for (uint32_t i = 0; i < entries.count; ++i)
    result.emplace_back(reinterpret_cast<const char*>(uintptr_t(entries[i][position])));
  return result;
}

// ---- Operations

void lookAtMemory() {
  Guard guard(hostMutex());
  memory().refresh();
}

namespace operations {

double getRBVersion() { return profile().version; }

void registerPluginVersion(int32_t version) {
  if (version < 9 || version > newestInterface())
    die("RegisterPluginVersion: this host knows the interface versions 9 to " +
        std::to_string(newestInterface()) + ", not " + std::to_string(version));
  announced = uint32_t(version);
}

void registerClass(uint32_t* record) {
  {
    Guard guard(hostMutex());
    Examination(record, announced).enter();
  }
  if (tracing()) {
    auto* name = reinterpret_cast<const char*>(uintptr_t(record[field::name]));
    emit({Step::classRegistered, name, {}, {}, nullptr, currentThread()});
  }
}

} // namespace operations

} // namespace host
