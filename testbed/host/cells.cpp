// The memory of handles, and the ledger over it.
#include "internal.h"

#include <cstdio>
#include <cstring>
#include <ostream>
#include <sys/mman.h>

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#include <sanitizer/asan_interface.h>
#include <sanitizer/lsan_interface.h>
#define SPOIL(start, size) ASAN_POISON_MEMORY_REGION(start, size)
#define UNSPOIL(start, size) ASAN_UNPOISON_MEMORY_REGION(start, size)
// What living handles hold is the ledger's business.
#define HOLDS_POINTERS(start, size) __lsan_register_root_region(start, size)
#endif
#endif
#ifndef SPOIL
#define SPOIL(start, size) ((void)0)
#define HOLDS_POINTERS(start, size) ((void)0)
#define UNSPOIL(start, size) ((void)0)
#endif

namespace host {

namespace {

// Cells live in aligned chunks of one slot size each. A byte for each 64 KiB of the address space
// says which chunk sort an address lies in, so that any word a plug-in passes can be judged.
constexpr uint32_t chunkSize = 1 << 16;
constexpr uint32_t bodySizes[] = {64, 128, 256, 1024, 8192};
constexpr uint32_t quarantine =
    16384; // dead cells of one size that wait before the oldest is reused

struct SlotPool {
  uint32_t slotSize;
  uint8_t* fresh = nullptr; // next never-used slot
  uint32_t freshLeft = 0;
  Cell *oldestDead = nullptr, *newestDead = nullptr;
  uint32_t dead = 0;
};

std::atomic<uint8_t> chunkSort[1 << 16]; // 0: not ours, else 1 + index of the pool
SlotPool pools[std::size(bodySizes)];

uint32_t slotSize(size_t pool) { return sizeof(Cell) + bodySizes[pool]; }

void addChunk(size_t index) {
  // Twice the size, so that an aligned part is in it; the rest goes back.
  auto* raw = static_cast<uint8_t*>(
      mmap(nullptr, 2 * chunkSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  if (raw == MAP_FAILED) die("no memory left for host objects; see host::leakReport()");
  auto address = reinterpret_cast<uintptr_t>(raw);
  uintptr_t start = (address + chunkSize - 1) & ~uintptr_t(chunkSize - 1);
  if (start > address) munmap(raw, start - address);
  uintptr_t end = start + chunkSize;
  if (address + 2 * chunkSize > end)
    munmap(reinterpret_cast<void*>(end), address + 2 * chunkSize - end);
  HOLDS_POINTERS(reinterpret_cast<void*>(start), chunkSize);
  chunkSort[start / chunkSize] = uint8_t(1 + index);
  pools[index].fresh = reinterpret_cast<uint8_t*>(start);
  pools[index].freshLeft = chunkSize / slotSize(index);
}

void* takeSlot(size_t index) {
  SlotPool& pool = pools[index];
  if (pool.dead > quarantine) {
    Cell* oldest = pool.oldestDead;
    pool.oldestDead = oldest->nextDead;
    --pool.dead;
    return oldest;
  }
  if (pool.freshLeft == 0) addChunk(index);
  void* slot = pool.fresh;
  pool.fresh += slotSize(index);
  --pool.freshLeft;
  return slot;
}

bool known(const Cell& cell) {
  State state = cell.state;
  return state == State::live || state == State::dying || state == State::dead;
}

std::string address(const void* handle) {
  char text[24];
  snprintf(text, sizeof text, "%p", handle);
  return text;
}

std::string nameOf(const Cell& cell) { return cell.type->name + "#" + std::to_string(cell.number); }

} // namespace

std::recursive_mutex& hostMutex() {
  static auto* mutex = new std::recursive_mutex; // outlives every static destructor
  return *mutex;
}

Cell& allocateCell(Form form, Class& type, uint32_t bodySize) {
  size_t index = 0;
  while (index < std::size(bodySizes) && bodySizes[index] < bodySize) ++index;
  if (index == std::size(bodySizes))
    throw Error("an object of class " + type.name + " would take " + std::to_string(bodySize) +
                " bytes; the most is " + std::to_string(bodySizes[index - 1]));
  void* slot;
  {
    Guard guard(hostMutex());
    slot = takeSlot(index);
  }
  auto* body = static_cast<uint8_t*>(slot) + sizeof(Cell);
  UNSPOIL(body, bodySizes[index]);
  memset(body, 0, bodySizes[index]);
  auto* cell = new (slot) Cell;
  cell->form = form;
  cell->type = &type;
  cell->references = 1;
  cell->number = ++type.made;
  cell->bodySize = bodySizes[index];
  cell->payload = nullptr;
  cell->died.count = 0;
  capture(cell->born);
  ++type.alive;
  cell->state = State::live;
  return *cell;
}

void rememberDeath(Cell& cell) { capture(cell.died); }

void buryCell(Cell& cell) {
  // The state first: a payload that unlocks other handles may come back to this one.
  cell.state = State::dead;
  --cell.type->alive;
  delete std::exchange(cell.payload, nullptr);
  memset(cell.body(), 0xDD, cell.bodySize);
  SPOIL(cell.body(), cell.bodySize);
  Guard guard(hostMutex());
  SlotPool& pool = pools[chunkSort[reinterpret_cast<uintptr_t>(&cell) / chunkSize] - 1];
  cell.nextDead = nullptr;
  (pool.dead++ ? pool.newestDead->nextDead : pool.oldestDead) = &cell;
  pool.newestDead = &cell;
}

Cell* findCell(const void* handle) {
  auto place = reinterpret_cast<uintptr_t>(handle);
  uint8_t sort = chunkSort[place / chunkSize].load(std::memory_order_relaxed);
  if (sort == 0) return nullptr;
  uint32_t size = slotSize(sort - 1), offset = place % chunkSize;
  if (offset < sizeof(Cell) || (offset - sizeof(Cell)) % size != 0) return nullptr;
  Cell* cell = reinterpret_cast<Cell*>(place) - 1;
  if (offset - sizeof(Cell) + size > chunkSize || !known(*cell)) return nullptr;
  return cell;
}

Cell& liveCell(const void* handle, Form form, const char* who) {
  Cell* cell = findCell(handle);
  if (!cell) die(std::string(who) + ": " + address(handle) + " is no handle of this host");
  if (cell->state == State::dead)
    die(std::string(who) + ": " + nameOf(*cell) + " is dead", "it died here", cell->died);
  if (cell->form != form)
    die(std::string(who) + ": " + nameOf(*cell) +
            (form == Form::string ? " is an object, a string is needed"
                                  : " is a string, an object is needed"),
        "it was made here", cell->born);
  return *cell;
}

bool dropReference(const void* handle, Form form, const char* who) {
  Cell& cell = liveCell(handle, form, who);
  int left = cell.references.fetch_sub(1, std::memory_order_acq_rel) - 1;
  if (left > 0) return false;
  if (left < 0 || cell.state == State::dying)
    die(std::string(who) + ": " + nameOf(cell) + " is unlocked once too often",
        "its destruction began here", cell.died);
  rememberDeath(cell);
  return true;
}

std::string label(const void* handle) {
  if (!handle) return "nil";
  Cell* cell = findCell(handle);
  if (!cell) return address(handle);
  return (cell->state == State::dead ? "dead " : "") + nameOf(*cell);
}

void forEachLiveCell(const std::function<void(Cell&)>& visit) {
  Guard guard(hostMutex());
  for (uintptr_t chunk = 0; chunk < std::size(chunkSort); ++chunk) {
    if (chunkSort[chunk] == 0) continue;
    uint32_t size = slotSize(chunkSort[chunk] - 1u);
    for (uint32_t offset = 0; offset + size <= chunkSize; offset += size) {
      auto& cell = *reinterpret_cast<Cell*>(chunk * chunkSize + offset);
      if (cell.state == State::live || cell.state == State::dying) visit(cell);
    }
  }
}

// ---- The ledger

Ledger ledger() {
  Ledger result;
  forEachClass([&](Class& type) {
    if (int alive = type.alive) result.alive[type.name] += alive;
  });
  if (size_t lent = lentStringData()) result.alive["string data"] = int(lent);
  return result;
}

std::ostream& operator<<(std::ostream& out, const Ledger& ledger) {
  if (ledger.alive.empty()) return out << "nothing alive";
  const char* between = "";
  for (auto& [name, count] : ledger.alive) {
    out << between << count << ' ' << name;
    between = ", ";
  }
  return out << " alive";
}

std::string leakReport() {
  std::string report;
  forEachLiveCell([&](Cell& cell) {
    report += nameOf(cell) + ", " + std::to_string(cell.references) +
              (cell.references == 1 ? " reference" : " references") + ", made here:\n" +
              print(cell.born);
  });
  if (size_t lent = lentStringData())
    report += std::to_string(lent) + " string data not disposed of\n";
  return report;
}

} // namespace host
