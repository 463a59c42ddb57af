/* hashmap: an open-addressing map from byte strings to small values, in insertion order.
 *
 * Owns copies of its keys; never owns what the values point to. An absent key reads as V(), so it looks the
 * same as a key with a stored zero. Slots are found by linear probing. The table doubles when it is half full
 * (3, 6, 12, 24, ...). A removal rebuilds the table, so no probe chain ever has a hole.
 *
 * Between calls: (1) count <= capacity / 2, unless doubling would overflow; (2) keys[0..count-1] are the keys
 * in the order of their first insertion, keys[count] is null; (3) slots and keys are null exactly when
 * capacity is 0. A slot and its V are copied byte for byte; V must allow that. */
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <type_traits>

namespace base {

/* The 32-bit hash of every map. Bytes count as signed. The first byte enters the hash last. It is read even
 * when `len` is 0, so `s` must end with a zero byte. The slot order depends on every step of this
 * function. */
uint32_t tovel_hash(const char* s, unsigned len);

template <class V>
struct hashmap {
  static_assert(std::is_trivially_copyable<V>::value, "slots live in calloc'ed memory and move as bytes");

  struct slot {
    uint32_t hash;     // of `key`; stored, so growing need not compute it again
    std::string* key;  // owned; null in an empty slot
    V value;
  };

  slot* slots = nullptr;
  std::string** keys = nullptr;
  uint32_t count = 0;       // keys
  uint32_t capacity = 0;    // slots
  uint32_t collisions = 0;  // how many used slots all insertions have passed; only for statistics; wraps

  /* May be replaced before the first key is inserted, but not later, because the hashes are stored. */
  uint32_t (*hash)(const char*, unsigned) = tovel_hash;

  hashmap() = default;
  hashmap(const hashmap&) = delete;
  hashmap& operator=(const hashmap&) = delete;

  ~hashmap() {
    for (uint32_t i = 0; i < count; i++) delete keys[i];
    free(slots);
    free(keys);
  }

  /* The value stored under `key`, or V() when there is none. */
  V get(const std::string& key) const {
    if (count == 0) return V();
    const slot* found = find_slot(hash_of(key), key, nullptr);
    if (!found || !found->key) return V();
    return found->value;
  }

  /* Inserts `key` with `value`, or replaces the value of a key that is there. The map copies the key, so the
   * caller's string may be destroyed after the call. When no slot is free (only after 3 * 2^30 keys, when
   * doubling would overflow) it prints an error and stores nothing. After std::bad_alloc all keys and values
   * are as before. */
  void set(const std::string& key, V value) {
    grow_maybe();
    uint32_t h = hash_of(key);
    slot* place = find_slot(h, key, &collisions);
    if (!place) {
      printf("Error! Out of space!\n");
      fflush(stdout);
      return;
    }
    if (!place->key) {
      place->key = new std::string(key);  // deleted by remove() or the destructor
      place->hash = h;
      keys[count++] = place->key;
      keys[count] = nullptr;
    }
    place->value = value;
  }

  /* Removes `key`, if it is there. `key` may be the map's own string. The caller frees the value. This walks
   * over all keys and rebuilds the table. Marking removed slots (tombstones) would cost more in a map from
   * which keys are hardly ever removed. After std::bad_alloc nothing has changed. */
  void remove(const std::string& key) {
    if (count == 0) return;
    slot* found = find_slot(hash_of(key), key, nullptr);
    if (!found || !found->key) return;
    slot* fresh = new_slots(capacity);
    uint32_t at = 0;
    while (keys[at] != found->key) at++;
    delete keys[at];
    count--;
    memmove(keys + at, keys + at + 1, (count - at) * sizeof(*keys));
    keys[count] = nullptr;
    found->key = nullptr;
    move_slots(fresh, capacity);
  }

 private:
  uint32_t hash_of(const std::string& key) const {
    return hash(key.c_str(), static_cast<unsigned>(key.size()));
  }

  static bool is_key(const slot& s, uint32_t h, const std::string& key) {
    return s.hash == h && s.key->size() == key.size() &&
           (key.empty() || memcmp(s.key->data(), key.data(), key.size()) == 0);
  }

  // The slot that holds `key`, or the empty slot where it belongs, or null when all slots hold other keys.
  // `steps`, unless it is null, counts the slots passed.
  slot* find_slot(uint32_t h, const std::string& key, uint32_t* steps) const {
    uint32_t start = h % capacity;
    uint32_t i = start;
    do {
      if (!slots[i].key || is_key(slots[i], h, key)) return &slots[i];
      if (steps) ++*steps;
      i = (i + 1) % capacity;
    } while (i != start);
    return nullptr;
  }

  // The table grows before the key is looked up, so replacing a value can make it grow, too.
  void grow_maybe() {
    if (capacity == 0)
      resize(3);
    else if (count >= capacity / 2 && capacity <= UINT32_MAX / 2)
      resize(2 * capacity);
  }

  void resize(uint32_t wanted) {
    slot* fresh = new_slots(wanted);
    void* moved = realloc(keys, wanted * sizeof(*keys));
    if (!moved) {
      free(fresh);
      throw std::bad_alloc();
    }
    keys = static_cast<std::string**>(moved);
    keys[count] = nullptr;
    move_slots(fresh, wanted);
  }

  static slot* new_slots(uint32_t wanted) {
    void* fresh = calloc(wanted, sizeof(slot));
    if (!fresh) throw std::bad_alloc();
    return static_cast<slot*>(fresh);
  }

  // Takes over a fresh array of `wanted` slots and moves every used slot into it. The stored hashes are used
  // again.
  void move_slots(slot* fresh, uint32_t wanted) {
    slot* old = slots;
    uint32_t old_capacity = capacity;
    slots = fresh;
    capacity = wanted;
    for (uint32_t i = 0; i < old_capacity; i++) {
      if (!old[i].key) continue;
      uint32_t to = old[i].hash % capacity;
      while (slots[to].key) to = (to + 1) % capacity;
      slots[to] = old[i];
    }
    free(old);
  }
};

}  // namespace base
