#include "net/connection.h"

#include <algorithm>
#include <ctime>

#include "net/connection_memory.h"

// The buffer is left alone: operator new has returned zeros, and writing them again would touch its pages.
// cppcheck-suppress uninitMemberVar
connection::connection() : last_active(static_cast<int32_t>(time(nullptr))) {}

namespace {

// The object whose destructor has run last, and how much of its output buffer was written. The delete that
// follows needs this number, but the object has ended by then.
struct {
  const void* object = nullptr;
  size_t filled = 0;  // bytes
} last_ended;

}  // namespace

connection::~connection() {
  last_ended = {this, static_cast<size_t>(out_filled < 0 ? out_capacity : out_filled)};
}

void connection::fill_output() {
  const int before = out_filled;
  out_filled = out_capacity;  // in case on_send() throws or sets a negative length
  keep = on_send(out, out_capacity, &out_len);
  if (out_len >= 0) out_filled = std::max(before, out_len);
}

connection*& connection::selected() {
  static connection* current = nullptr;
  return current;
}

void* connection::operator new(size_t size, const std::nothrow_t&) noexcept {
  return connection_memory::shared().take(size);
}

void* connection::operator new(size_t size) {
  void* object = operator new(size, std::nothrow);
  if (!object) throw std::bad_alloc();
  return object;
}

void connection::operator delete(void* object, size_t) noexcept {
  const size_t filled = object == last_ended.object ? last_ended.filled : size_t{out_capacity};
  connection_memory::shared().give_back(object, filled);
}

// Called when a constructor throws.
void connection::operator delete(void* object, const std::nothrow_t&) noexcept {
  connection_memory::shared().give_back(object);
}
