// Where connection objects stand: each on pages of its own, mapped from the system.
//
// A fresh page is zero and costs nothing until it is touched, so an object of over 1 MiB costs the two or
// three pages that a small exchange uses. malloc would do for that, but calloc writes zeros over memory
// that it has had back, a MiB for each connection. Here an ended object's first and last pages are kept and
// wiped, the pages between are returned to the system, and up to `most_spare` such objects wait to be used
// again, which saves the page faults that dominate the cost of short connections.

#include <sys/mman.h>

#include <cstring>

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
constexpr int most_spare = 64;

// Objects start at different offsets within a page. All at the same offset, their hot fields would share a
// few cache sets and throw each other out.
constexpr size_t colour_step = 64;
constexpr size_t colours = 32;

// The mapping of one object, found again from the object's address: its offset is below a page.
struct mapping {
  char* base;
  size_t length;

  mapping(void* object, size_t size)
      : base(reinterpret_cast<char*>(reinterpret_cast<uintptr_t>(object) & ~(page - 1))),
        length(length_for(size)) {}

  static size_t length_for(size_t size) { return (size + colours * colour_step + page - 1) / page * page; }
};

struct spare_objects {
  void* object[most_spare];
  size_t size[most_spare];
  int count = 0;
};

spare_objects& spare() {
  static spare_objects s;
  return s;
}

void* take_spare(size_t size) {
  spare_objects& s = spare();
  for (int i = s.count - 1; i >= 0; i--) {
    if (s.size[i] != size) continue;
    void* object = s.object[i];
    s.count--;
    s.object[i] = s.object[s.count];
    s.size[i] = s.size[s.count];
    OPEN_FOR_USE(object, size);
    return object;
  }
  return nullptr;
}

void* map_object(size_t size) {
  static size_t colour = 0;
  size_t length = mapping::length_for(size);
  void* base =
      mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (base == MAP_FAILED) return nullptr;
  madvise(base, length, MADV_NOHUGEPAGE);  // a huge page would make every object cost 2 MiB
  colour = (colour + 1) % colours;
  return static_cast<char*>(base) + colour * colour_step;
}

// Makes an ended object all zero again. The page where it starts and those behind the output buffer are kept,
// for the next object will touch them; what lies between is zero once it is faulted in again.
void wipe(void* object, size_t size) {
  char* start = static_cast<char*>(object);
  char* middle = mapping(object, size).base + page;
  char* tail = mapping(start + connection::out_capacity, 0).base;
  memset(start, 0, static_cast<size_t>(middle - start));
  madvise(middle, static_cast<size_t>(tail - middle), MADV_DONTNEED);
  memset(tail, 0, static_cast<size_t>(start + size - tail));
}

}  // namespace

void* connection::operator new(size_t size, const std::nothrow_t&) noexcept {
  void* object = take_spare(size);
  return object ? object : map_object(size);
}

void* connection::operator new(size_t size) {
  void* object = operator new(size, std::nothrow);
  if (!object) throw std::bad_alloc();
  return object;
}

void connection::operator delete(void* object, size_t size) noexcept {
  if (!object) return;
  spare_objects& s = spare();
  if (s.count == most_spare) {
    mapping m(object, size);
    munmap(m.base, m.length);
    return;
  }
  wipe(object, size);
  HIDE_FROM_USE(object, size);
  s.object[s.count] = object;
  s.size[s.count++] = size;
}

// Only for a constructor that throws, after which the size is not known: the pages stay mapped.
void connection::operator delete(void*, const std::nothrow_t&) noexcept {}
