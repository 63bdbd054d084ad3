// Memory blocks.
#include "operations.h"

#include <new>

namespace host {

namespace {

std::atomic<int64_t> limit{INT64_MAX};

MemoryBlock& blockOf(ObjectHandle* handle, const char* who) {
  auto* block = dynamic_cast<MemoryBlock*>(liveCell(handle, Form::object, who).payload);
  if (!block) die(std::string(who) + ": " + label(handle) + " is no MemoryBlock");
  return *block;
}

} // namespace

void resetMemoryBlocks() { limit = INT64_MAX; }
void limitMemoryBlocks(std::optional<int64_t> bytes) { limit = bytes.value_or(INT64_MAX); }

Object memoryBlock(std::string_view bytes) {
  auto block = std::make_unique<MemoryBlock>();
  block->bytes.assign(bytes.begin(), bytes.end());
  return makeObject(builtInClass(Kind::memoryBlock), std::move(block));
}
std::string memoryBlockBytes(const Object& memoryBlock) {
  auto& bytes = needPayload<MemoryBlock>(memoryBlock, "MemoryBlock").bytes;
  return {bytes.begin(), bytes.end()};
}
void setReportedSize(const Object& memoryBlock, std::optional<int32_t> size) {
  needPayload<MemoryBlock>(memoryBlock, "MemoryBlock").reportedSize = size;
}

namespace operations {

ObjectHandle* newMemoryBlock(int32_t size) {
  if (size < 0 || size > limit) return nullptr;
  auto block = std::make_unique<MemoryBlock>();
  try {
    block->bytes.resize(size_t(size));
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
  return handleOf(makeObject(builtInClass(Kind::memoryBlock), std::move(block)));
}

Opaque* memoryBlockPointer(ObjectHandle* handle) {
  if (!handle) return nullptr;
  static uint8_t nothing; // an empty block has a place too, of which nothing may be read
  auto& bytes = blockOf(handle, "memoryBlockGetPtr").bytes;
  return reinterpret_cast<Opaque*>(bytes.empty() ? &nothing : bytes.data());
}

int32_t memoryBlockSize(ObjectHandle* handle) {
  if (!handle) return 0;
  MemoryBlock& block = blockOf(handle, "memoryBlockGetSize");
  return block.reportedSize.value_or(int32_t(block.bytes.size()));
}

} // namespace operations

} // namespace host
