#include "net/connection_memory.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <new>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#define HIDE_FROM_USE(place, size) __asan_poison_memory_region(place, size)
#define OPEN_FOR_USE(place, size) __asan_unpoison_memory_region(place, size)
#else
#define HIDE_FROM_USE(place, size) static_cast<void>(0)
#define OPEN_FOR_USE(place, size) static_cast<void>(0)
#endif

namespace {

constexpr size_t cache_line = 64;
constexpr size_t most_cleared = 16384;                                // bytes of an output buffer
constexpr unsigned all_free = (1U << connection_memory::slots) - 1U;  // as row::free_slots

// The distance from object to object: an odd number of whole cache lines. So the hot fields at the front of
// many objects spread over all sets of the cache and do not evict each other.
size_t stride_for(size_t size) {
  return ((size + cache_line - 1) / cache_line | 1) * cache_line;
}

}  // namespace

char* connection_memory::row::at(unsigned slot) const {
  return base + slot * stride_for(size);
}

unsigned connection_memory::row::slot_of(const char* object) const {
  return static_cast<unsigned>(static_cast<size_t>(object - base) / stride_for(size));
}

connection_memory::connection_memory() : page_(static_cast<size_t>(sysconf(_SC_PAGESIZE))) {}

connection_memory& connection_memory::shared() {
  alignas(connection_memory) static unsigned char memory[sizeof(connection_memory)];
  static auto* all = new (memory) connection_memory;
  return *all;
}

void* connection_memory::take(size_t size) noexcept {
  row* r = find_row(size);
  if (!r) return nullptr;
  const auto slot = static_cast<unsigned>(__builtin_ctz(r->free_slots));
  r->free_slots &= ~(1U << slot);
  spare_--;
  OPEN_FOR_USE(r->at(slot), size);
  return r->at(slot);
}

// The first row with a free slot for `size` bytes, or a new row; null when memory is refused. Walks over all
// rows; a full server has about 130.
connection_memory::row* connection_memory::find_row(size_t size) {
  for (row& r : rows_) {
    if (r.size == size && r.free_slots != 0) return &r;
  }
  return add_row(size);
}

connection_memory::row* connection_memory::add_row(size_t size) {
  row r = {nullptr, whole_pages(slots * stride_for(size)), size, all_free};
  try {
    rows_.reserve(rows_.size() + 1);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
  void* base =
      mmap(nullptr, r.length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (base == MAP_FAILED) return nullptr;
  madvise(base, r.length, MADV_NOHUGEPAGE);  // a huge page would make every object cost 2 MiB
  r.base = static_cast<char*>(base);
  HIDE_FROM_USE(r.base, r.length);
  rows_.push_back(r);
  spare_ += slots;
  return &rows_.back();
}

void connection_memory::give_back(void* object, size_t filled) noexcept {
  auto* place = static_cast<char*>(object);
  const auto r = std::find_if(rows_.begin(), rows_.end(), [=](const row& some) { return some.holds(place); });
  if (r == rows_.end()) return;
  wipe(place, r->size, filled);
  HIDE_FROM_USE(place, r->size);
  r->free_slots |= 1U << r->slot_of(place);
  spare_++;
  if (r->free_slots == all_free && spare_ >= most_spare + slots && unmap(*r)) {
    spare_ -= slots;
    *r = rows_.back();
    rows_.pop_back();
  }
}

// Makes the memory of an ended object all zero again. An output buffer that was hardly used is cleared, and
// its pages stay for the next object.
void connection_memory::wipe(char* object, size_t size, size_t filled) const {
  // The fields before the output buffer, and its first `filled` bytes. sizeof also counts the fields after
  // the buffer, so a few bytes more are cleared.
  const size_t front = sizeof(connection) - connection::out_capacity + filled;
  char* middle = object + front;
  char* tail = object + connection::out_capacity;
  if (filled > most_cleared) {
    middle = page_of(object) + page_;
    tail = page_of(tail);
    const auto between = static_cast<size_t>(tail - middle);
    if (madvise(middle, between, MADV_DONTNEED) != 0)
      memset(middle, 0, between);  // the system refuses this for locked memory
  }
  memset(object, 0, static_cast<size_t>(middle - object));
  memset(tail, 0, static_cast<size_t>(object + size - tail));
}

char* connection_memory::page_of(char* place) const {
  return place - reinterpret_cast<uintptr_t>(place) % page_;
}

// Returns false when the system would have to split a mapping and has too little memory or too many mappings
// for that.
bool connection_memory::unmap(row& r) {
  OPEN_FOR_USE(r.base, r.length);
  if (munmap(r.base, r.length) == 0) return true;
  HIDE_FROM_USE(r.base, r.length);
  return false;
}

connection_memory::~connection_memory() {
  for (row& r : rows_) unmap(r);
}
