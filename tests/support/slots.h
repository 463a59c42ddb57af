/* slot_of: the place of a virtual member function in its class's table.
 *
 *     EXPECT_EQ(slot_of(&connection::on_recv), 0u);
 *
 * Two slots belong to the destructors. */
#pragma once

#include <cstdint>
#include <cstring>

/* The first word of a pointer to a virtual member function is the offset in the table. The Itanium C++ ABI
 * adds 1 to it; its variant for ARM adds 1 to the second word. The division gives the slot in both. */
template <class F>
uintptr_t slot_of(F function) {
  static_assert(sizeof(function) >= sizeof(uintptr_t), "a pointer to a member function");
  uintptr_t word;
  memcpy(&word, &function, sizeof(word));
  return word / sizeof(void*);
}
