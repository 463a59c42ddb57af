#include "net/connection.h"

#include <ctime>

#include "net/connection_memory.h"

// The buffer is left alone: operator new has handed out zeros, and writing them again would touch its pages.
// cppcheck-suppress uninitMemberVar
connection::connection() : last_active(static_cast<int32_t>(time(nullptr))) {}

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
  connection_memory::shared().give_back(object);
}

// For a constructor that throws.
void connection::operator delete(void* object, const std::nothrow_t&) noexcept {
  connection_memory::shared().give_back(object);
}
