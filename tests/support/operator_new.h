/* operator_new: lets `new` refuse memory, also to strings and containers.
 *
 * It replaces the operators of the whole program, so only one source file of a test program includes it. The
 * others include new_faults.h. */
#pragma once

#include <cstdlib>
#include <new>

#include "tests/support/new_faults.h"

void* operator new(size_t size, const std::nothrow_t&) noexcept {
  // Not malloc(): a test program may have replaced it, and would count this allocation twice.
  return new_is_refused() ? nullptr : calloc(1, size == 0 ? 1 : size);
}

void* operator new(size_t size) {
  void* memory = operator new(size, std::nothrow);
  if (!memory) throw std::bad_alloc();
  return memory;
}

void* operator new[](size_t size) {
  return operator new(size);
}

void* operator new[](size_t size, const std::nothrow_t&) noexcept {
  return operator new(size, std::nothrow);
}

void operator delete(void* memory) noexcept {
  free(memory);
}

void operator delete(void* memory, size_t) noexcept {
  free(memory);
}

void operator delete[](void* memory) noexcept {
  free(memory);
}

void operator delete[](void* memory, size_t) noexcept {
  free(memory);
}
