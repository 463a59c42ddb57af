// Where connection objects stand: in rows of eight, back to back, on pages mapped from the system.
//
// A fresh page is zero and costs nothing until it is touched, so an object of over 1 MiB costs the page or
// two that a small exchange uses: its last fields share a page with the first ones of the object behind it.
// malloc would do for fresh memory, but calloc writes zeros over memory that it has had back, a MiB for each
// connection. Here an ended object is wiped at both ends, and the pages between are returned to the system.
// Rows without an object go back to it too, but for some whose slots wait to be used again, which saves the
// page faults that dominate the cost of short connections.

#include <sys/mman.h>

#include <cstring>
#include <vector>

#include "net/connection.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#define HIDE_FROM_USE(place, size) __asan_poison_memory_region(place, size)
#define OPEN_FOR_USE(place, size) __asan_unpoison_memory_region(place, size)
#else
#define HIDE_FROM_USE(place, size) static_cast<void>(0)
#define OPEN_FOR_USE(place, size) static_cast<void>(0)
#endif

namespace {

constexpr size_t page = 4096;
constexpr size_t cache_line = 64;
constexpr unsigned slots = 8;                      // of a row
constexpr unsigned all_free = (1U << slots) - 1U;  // as row::free_slots
constexpr unsigned most_spare = 64;                // slots that are kept for the next connections

// The distance from object to object: whole cache lines, and an odd number of them, so that the hot fields
// at the front of many objects spread over all sets of the cache instead of throwing each other out.
size_t stride_for(size_t size) {
  return ((size + cache_line - 1) / cache_line | 1) * cache_line;
}

struct row {
  char* base;
  size_t size;          // of its objects
  unsigned free_slots;  // a bit for each

  size_t length() const { return (slots * stride_for(size) + page - 1) / page * page; }
  char* at(unsigned slot) const { return base + slot * stride_for(size); }
  bool holds(const char* object) const { return object >= base && object < base + length(); }
};

struct row_list {
  std::vector<row> rows;
  unsigned spare = 0;  // free slots in all of them
};

row_list& all_rows() {
  static auto* list = new row_list;  // never deleted: connections are ended until the very end of the process
  return *list;
}

// The first row with a free slot for `size` bytes, a new one if need be; null when the system has no memory.
// A walk over all rows, of which a full server has about 130.
row* find_row(size_t size) {
  std::vector<row>& rows = all_rows().rows;
  for (row& r : rows) {
    if (r.size == size && r.free_slots != 0) return &r;
  }
  row r = {nullptr, size, all_free};
  void* base =
      mmap(nullptr, r.length(), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (base == MAP_FAILED) return nullptr;
  madvise(base, r.length(), MADV_NOHUGEPAGE);  // a huge page would make every object cost 2 MiB
  r.base = static_cast<char*>(base);
  HIDE_FROM_USE(r.base, r.length());
  rows.push_back(r);
  all_rows().spare += slots;
  return &rows.back();
}

char* page_of(char* place) {
  return reinterpret_cast<char*>(reinterpret_cast<uintptr_t>(place) & ~(page - 1));
}

// Makes an ended object all zero again. The pages that it shares with its neighbours, and the one behind the
// output buffer, are kept, for the next object will touch them; what lies between is zero once it is faulted
// in again.
void wipe(char* object, size_t size) {
  char* middle = page_of(object + page - 1);
  char* tail = page_of(object + connection::out_capacity);
  memset(object, 0, static_cast<size_t>(middle - object));
  madvise(middle, static_cast<size_t>(tail - middle), MADV_DONTNEED);
  memset(tail, 0, static_cast<size_t>(object + size - tail));
}

void give_back(row& r) {
  all_rows().spare -= slots;
  OPEN_FOR_USE(r.base, r.length());
  munmap(r.base, r.length());
  r = all_rows().rows.back();
  all_rows().rows.pop_back();
}

}  // namespace

void* connection::operator new(size_t size, const std::nothrow_t&) noexcept {
  row* r = find_row(size);
  if (!r) return nullptr;
  const auto slot = static_cast<unsigned>(__builtin_ctz(r->free_slots));
  r->free_slots &= ~(1U << slot);
  all_rows().spare--;
  OPEN_FOR_USE(r->at(slot), size);
  return r->at(slot);
}

void* connection::operator new(size_t size) {
  void* object = operator new(size, std::nothrow);
  if (!object) throw std::bad_alloc();
  return object;
}

void connection::operator delete(void* object, size_t size) noexcept {
  auto* place = static_cast<char*>(object);
  for (row& r : all_rows().rows) {
    if (!r.holds(place)) continue;
    wipe(place, size);
    HIDE_FROM_USE(place, size);
    r.free_slots |= 1U << static_cast<size_t>(place - r.base) / stride_for(size);
    all_rows().spare++;
    if (r.free_slots == all_free && all_rows().spare >= most_spare + slots) give_back(r);
    return;
  }
}

// Only for a constructor that throws, after which the size is not known: the slot stays taken.
void connection::operator delete(void*, const std::nothrow_t&) noexcept {}
