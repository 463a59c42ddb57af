/* operator_new: lets `new` refuse memory, also to strings and containers.
 *
 * It replaces the operators of the whole program, so only one source file of a test program includes it.
 * Every allocation counts while `new_faults().is_counting` is set and faults are not suspended. */
#pragma once

#include <cstdlib>
#include <new>

#include "tests/support/faults.h"

struct new_fault_plan {
  bool is_counting = false;
  int calls = 0;    // while it was counting
  int granted = 0;  // calls that still succeed
  int refused = 0;  // calls that are then refused
};

inline new_fault_plan& new_faults() {
  static new_fault_plan plan;
  return plan;
}

/* Whether this allocation has to be refused. */
inline bool new_is_refused() {
  new_fault_plan& plan = new_faults();
  if (!plan.is_counting || faults::suspended()) return false;
  plan.calls++;
  if (plan.granted > 0) {
    plan.granted--;
    return false;
  }
  if (plan.refused == 0) return false;
  plan.refused--;
  return true;
}

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
