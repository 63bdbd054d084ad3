#include "records.h"

#include <deque>
#include <initializer_list>
#include <memory>

namespace companion {

namespace {

// Words of each record or entry: up to version 9, and from version 10 on.
struct Layout {
  uint32_t record, property, method;
};
constexpr Layout oldLayout = {25, 10, 4};
constexpr Layout newLayout = {29, 12, 6};

enum RecordWord {
  versionWord = 0,
  nameWord = 1,
  superclassWord = 2,
  dataSizeWord = 3,
  dataPositionWord = 4,
  constructorWord = 5,
  destructorWord = 6,
  propertiesWord = 7,
  propertyCountWord = 8,
  methodsWord = 9,
  methodCountWord = 10,
  flagsWord = 20,
};
enum PropertyWord {
  propertyNameWord = 1,
  propertyTypeWord = 2,
  propertyFlagsWord = 3,
  getterWord = 4,
  setterWord = 5,
  positionWord = 6,
};
enum MethodWord { functionWord = 0, declarationWord = 2, methodFlagsWord = 3 };

constexpr uint32_t classFlags = 4;
constexpr uint32_t propertyFlags = 6;
constexpr uint32_t methodFlags = 4;
constexpr uint32_t directAccess = 0xFFFFFFFF;
constexpr uint32_t dataAlignment = 16;

template <typename Target> uint32_t word(Target* pointer) {
  return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(pointer));
}

// Zeroed words that live as long as the process.
uint32_t* words(uint32_t count) {
  static auto& kept = *new std::deque<std::unique_ptr<uint32_t[]>>;
  return count ? kept.emplace_back(std::make_unique<uint32_t[]>(count)).get() : nullptr;
}

uint32_t* propertyEntries(std::span<const Property> properties, uint32_t size) {
  uint32_t* entries = words(properties.size() * size);
  uint32_t* entry = entries;
  for (const Property& property : properties) {
    entry[propertyNameWord] = word(property.name);
    entry[propertyTypeWord] = word(property.type);
    entry[propertyFlagsWord] = propertyFlags;
    entry[getterWord] = directAccess;
    entry[setterWord] = directAccess;
    entry[positionWord] = property.position;
    entry += size;
  }
  return entries;
}

uint32_t* methodEntries(std::span<const Method> methods, uint32_t size) {
  uint32_t* entries = words(methods.size() * size);
  uint32_t* entry = entries;
  for (const Method& method : methods) {
    entry[functionWord] = word(method.function);
    entry[declarationWord] = word(method.declaration);
    entry[methodFlagsWord] = methodFlags;
    entry += size;
  }
  return entries;
}

} // namespace

int32_t interfaceVersion(double hostVersion) {
  struct Step {
    double from;
    int32_t version;
  };
  for (const Step& step : {Step{2013.03, 12}, Step{2013.0, 11}, Step{2012.0, 10}})
    if (hostVersion >= step.from) return step.version;
  return 9;
}

uint32_t* makeRecord(const ClassDescription& description, int32_t version) {
  const Layout& layout = version > 9 ? newLayout : oldLayout;
  uint32_t* record = words(layout.record);
  record[versionWord] = version;
  record[nameWord] = word(description.name);
  record[superclassWord] = word(description.superclass);
  record[dataSizeWord] = (description.dataSize + dataAlignment - 1) / dataAlignment * dataAlignment;
  record[constructorWord] = word(description.constructor);
  record[destructorWord] = word(description.destructor);
  record[propertiesWord] = word(propertyEntries(description.properties, layout.property));
  record[propertyCountWord] = description.properties.size();
  record[methodsWord] = word(methodEntries(description.methods, layout.method));
  record[methodCountWord] = description.methods.size();
  record[flagsWord] = classFlags;
  return record;
}

uint32_t dataPosition(const uint32_t* record) { return record[dataPositionWord]; }

} // namespace companion
