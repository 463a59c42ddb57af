/* arraylist: a growable array of pointers that always ends with a null.
 *
 * Owns the array `data` (from realloc, freed by the destructor), never the elements.
 * Between calls: (1) count <= capacity; (2) data[count] is null, so the array can be walked to its end;
 * (3) data is null exactly when capacity is 0. Capacities run 2, 4, 8, ... unless reserve() sets another. */
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <type_traits>

namespace base {

template <class T>
struct arraylist {
  static_assert(std::is_pointer<T>::value, "the end is marked by a null element");

  T* data = nullptr;
  uint32_t count = 0;
  uint32_t capacity = 0;

  arraylist() = default;
  arraylist(const arraylist&) = delete;
  arraylist& operator=(const arraylist&) = delete;
  ~arraylist() { free(data); }

  /* Appends `x`. The array may move, so pointers into `data` become invalid. After std::bad_alloc
   * nothing has changed. */
  void add(T x) {
    if (capacity == 0)
      reserve(2);
    else if (count >= capacity && capacity <= UINT32_MAX / 2)
      reserve(2 * capacity);
    data[count++] = x;
    data[count] = nullptr;
  }

  /* Removes the first element equal to `x` and keeps the order of the others. Returns false when there is
   * none. */
  bool remove(T x) {
    for (uint32_t i = 0; i < count; i++) {
      if (data[i] != x) continue;
      count--;
      memmove(data + i, data + i + 1, (count - i) * sizeof(T));
      data[count] = nullptr;
      return true;
    }
    return false;
  }

  /* Removes the last element; nothing happens on an empty list. */
  void pop() {
    if (count > 0) data[--count] = nullptr;
  }

  /* Sets the capacity to `wanted` elements, which must be at least 1 and at least `count`; it may be less
   * than the old capacity. There is always one more place, for the null at the end. After std::bad_alloc
   * nothing has changed. */
  void reserve(uint32_t wanted) {
    void* moved = realloc(data, (static_cast<size_t>(wanted) + 1) * sizeof(T));
    if (!moved) throw std::bad_alloc();
    data = static_cast<T*>(moved);
    capacity = wanted;
    data[count] = nullptr;
  }
};

}  // namespace base
