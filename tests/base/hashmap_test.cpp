#include "base/hashmap.h"

#include <gtest/gtest.h>
#include <stdio_ext.h>

#include <memory>
#include <set>
#include <string>
#include <type_traits>
#include <vector>

#include "tests/base/heap.h"
#include "tests/support/console.h"

using base::hashmap;
using base::tovel_hash;
using namespace std::string_literals;

namespace {

std::vector<std::string> keys_of(const hashmap<int>& map) {
  std::vector<std::string> keys;
  for (uint32_t i = 0; i < map.count; i++) keys.push_back(*map.keys[i]);
  return keys;
}

// The slot that holds `key`, or -1.
int slot_of(const hashmap<int>& map, const std::string& key) {
  for (uint32_t i = 0; i < map.capacity; i++) {
    if (map.slots[i].key && *map.slots[i].key == key) return static_cast<int>(i);
  }
  return -1;
}

int hash_calls = 0;

uint32_t counted_hash(const char* s, unsigned len) {
  hash_calls++;
  return tovel_hash(s, len);
}

uint32_t first_byte_hash(const char* s, unsigned) {
  return static_cast<unsigned char>(s[0]);
}

// The slot positions of these maps can be predicted: the hash of a key is its first byte.
struct hashmap_of_first_bytes : testing::Test {
  hashmap<int> map;
  hashmap_of_first_bytes() { map.hash = first_byte_hash; }
};

using keys = std::vector<std::string>;

}  // namespace

TEST(tovel_hash, has_the_values_that_define_slot_positions) {
  std::string all_bytes;
  for (int c = 1; c < 256; c++) all_bytes += static_cast<char>(c);
  const struct {
    std::string text;
    uint32_t hash;
  } rows[] = {
      {"", 843},
      {"a", 4770},
      {"localhost", 1363296717},
      {"Host", 1245583797},
      {"ab", 86435},
      {"ba", 87060},  // the first byte enters last
      {"A", 3010},
      {"\x7f", 6244},
      {"\x80", 5067},  // bytes from 0x80 on are negative
      {"\xff", 4294902555},
      {"\xc3\xa9", 75149},
      {"a\x80", 4294872484},
      {"a\xff\x80", 39002},
      {"a\0b"s, 61266},
      {"\0"s, 843},
      {"\0\0"s, 579},
      {all_bytes, 3586105841},
  };
  for (const auto& row : rows)
    EXPECT_EQ(tovel_hash(row.text.c_str(), static_cast<unsigned>(row.text.size())), row.hash)
        << testing::PrintToString(row.text);
}

TEST(tovel_hash, reads_no_byte_after_the_length) {
  const std::string text = "localhost";
  for (size_t len = 1; len <= text.size(); len++) {
    std::unique_ptr<char[]> exact(new char[len]);
    text.copy(exact.get(), len);
    EXPECT_EQ(tovel_hash(exact.get(), static_cast<unsigned>(len)),
              tovel_hash(text.substr(0, len).c_str(), static_cast<unsigned>(len)));
  }
}

TEST(tovel_hash, of_no_bytes_still_reads_the_first_byte) {
  EXPECT_EQ(tovel_hash("a", 0), tovel_hash("a", 1));
}

TEST(hashmap, is_made_of_its_six_fields_in_order_and_starts_with_nothing) {
  hashmap<int> map;
  auto& [slots, keys, count, capacity, collisions, hash] = map;
  static_assert(std::is_same_v<std::remove_reference_t<decltype(count)>, uint32_t>);
  static_assert(std::is_same_v<std::remove_reference_t<decltype(capacity)>, uint32_t>);
  static_assert(std::is_same_v<std::remove_reference_t<decltype(collisions)>, uint32_t>);
  EXPECT_EQ(&map.slots, &slots);
  EXPECT_EQ(&map.keys, &keys);
  EXPECT_EQ(&map.count, &count);
  EXPECT_EQ(&map.capacity, &capacity);
  EXPECT_EQ(&map.collisions, &collisions);
  EXPECT_EQ(slots, nullptr);
  EXPECT_EQ(keys, nullptr);
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(capacity, 0u);
  EXPECT_EQ(collisions, 0u);
  EXPECT_EQ(hash, &tovel_hash);
}

TEST(hashmap, slot_is_made_of_hash_key_and_value) {
  hashmap<int> map;
  map.set("a", 7);
  auto& [hash, key, value] = map.slots[4770 % 3];
  EXPECT_EQ(hash, 4770u);
  EXPECT_EQ(*key, "a");
  EXPECT_EQ(value, 7);
}

TEST(hashmap, miss_is_a_zero_value) {
  hashmap<int> numbers;
  hashmap<int*> pointers;
  EXPECT_EQ(numbers.get("a"), 0);
  EXPECT_EQ(pointers.get("a"), nullptr);
  int x = 1;
  numbers.set("b", 1);
  pointers.set("b", &x);
  EXPECT_EQ(numbers.get("a"), 0);
  EXPECT_EQ(pointers.get("a"), nullptr);
}

TEST(hashmap, empty_map_is_read_without_hashing_or_allocating) {
  hashmap<int> map;
  map.hash = counted_hash;
  hash_calls = 0;
  map.get("a");
  map.remove("a");
  EXPECT_EQ(map.capacity, 0u);
  EXPECT_EQ(map.slots, nullptr);
  map.set("a", 1);
  map.remove("a");
  hash_calls = 0;
  EXPECT_EQ(map.get("a"), 0);
  map.remove("a");
  EXPECT_EQ(hash_calls, 0);
}

TEST(hashmap, growing_and_rebuilding_never_hash_a_stored_key_again) {
  hashmap<int> map;
  map.hash = counted_hash;
  hash_calls = 0;
  for (int i = 0; i < 100; i++) map.set("key" + std::to_string(i), i + 1);
  EXPECT_EQ(hash_calls, 100);
  map.remove("key50");
  EXPECT_EQ(hash_calls, 101);
  map.get("key51");
  EXPECT_EQ(hash_calls, 102);
}

TEST(hashmap, capacity_starts_at_three_and_doubles_when_half_of_it_is_reached) {
  hashmap<int> map;
  const uint32_t capacity_after[] = {3, 6, 6, 12, 12, 12, 24, 24, 24, 24, 24, 24, 48};
  for (uint32_t i = 0; i < std::size(capacity_after); i++) {
    map.set("k" + std::to_string(i), 1);
    EXPECT_EQ(map.capacity, capacity_after[i]) << i + 1 << " keys";
  }
}

TEST(hashmap, replacing_the_only_key_grows_the_table_too) {
  hashmap<int> map;
  map.set("a", 1);
  EXPECT_EQ(map.capacity, 3u);
  map.set("a", 2);
  EXPECT_EQ(map.capacity, 6u);
  EXPECT_EQ(map.count, 1u);
  EXPECT_EQ(map.get("a"), 2);
}

TEST(hashmap, replacing_keeps_count_order_and_the_stored_key) {
  hashmap<int> map;
  for (const char* key : {"x", "y", "z"}) map.set(key, 1);
  const std::string* stored = map.keys[1];
  map.set("y", 2);
  EXPECT_EQ(map.get("y"), 2);
  EXPECT_EQ(map.count, 3u);
  EXPECT_EQ(keys_of(map), (keys{"x", "y", "z"}));
  EXPECT_EQ(map.keys[1], stored);
}

TEST(hashmap, key_list_holds_the_strings_of_the_slots_and_ends_with_null) {
  hashmap<int> map;
  for (uint32_t i = 0; i < 50; i++) {
    map.set(std::to_string(i), 1);
    ASSERT_EQ(map.keys[i + 1], nullptr);
  }
  std::set<std::string*> in_slots, in_keys(map.keys, map.keys + map.count);
  for (uint32_t i = 0; i < map.capacity; i++) {
    if (map.slots[i].key) in_slots.insert(map.slots[i].key);
  }
  EXPECT_EQ(in_slots, in_keys);
}

TEST(hashmap, copies_its_keys) {
  hashmap<int> map;
  {
    auto key = std::make_unique<std::string>(100, 'k');
    map.set(*key, 5);
    (*key)[0] = 'j';
  }
  EXPECT_EQ(map.get(std::string(100, 'k')), 5);
  EXPECT_EQ(map.get("j" + std::string(99, 'k')), 0);
}

TEST(hashmap, keys_are_byte_strings_of_any_content) {
  hashmap<int> map;
  const keys all = {"", "\0"s, "a", "a\0"s, "a\0b"s, "a\0c"s, "\xff", "\xff\xfe", std::string(100000, 'x')};
  int value = 0;
  for (const auto& key : all) map.set(key, ++value);
  value = 0;
  for (const auto& key : all) EXPECT_EQ(map.get(key), ++value) << testing::PrintToString(key.substr(0, 9));
  EXPECT_EQ(keys_of(map), all);
}

TEST(hashmap, stored_zero_looks_like_a_miss_but_is_counted) {
  hashmap<int> map;
  map.set("a", 0);
  EXPECT_EQ(map.get("a"), 0);
  EXPECT_EQ(map.count, 1u);
}

TEST(hashmap, stored_zero_is_replaced_like_any_other_value) {
  hashmap<int> map;
  map.set("a", 0);
  map.set("a", 0);
  map.set("a", 5);
  EXPECT_EQ(map.get("a"), 5);
  EXPECT_EQ(keys_of(map), keys{"a"});
}

TEST_F(hashmap_of_first_bytes, key_stands_in_the_first_free_slot_from_its_hash_on) {
  map.set("A1", 1);  // 65 % 3
  EXPECT_EQ(slot_of(map, "A1"), 2);
  map.set("A2", 1);  // the table grows to 6; 65 % 6
  EXPECT_EQ(slot_of(map, "A1"), 5);
  EXPECT_EQ(slot_of(map, "A2"), 0);
  map.set("A3", 1);
  EXPECT_EQ(slot_of(map, "A3"), 1);
}

TEST_F(hashmap_of_first_bytes, growth_moves_keys_in_the_order_of_their_old_slots) {
  for (const char* key : {"A1", "A2", "A3"}) map.set(key, 1);
  map.set("B", 1);  // to 12 slots; old order: A2 (0), A3 (1), A1 (5)
  EXPECT_EQ(slot_of(map, "A2"), 5);
  EXPECT_EQ(slot_of(map, "A3"), 6);
  EXPECT_EQ(slot_of(map, "A1"), 7);
  EXPECT_EQ(slot_of(map, "B"), 8);  // 66 % 12 is 6
  EXPECT_EQ(keys_of(map), (keys{"A1", "A2", "A3", "B"}));
}

TEST_F(hashmap_of_first_bytes, collisions_count_the_occupied_slots_that_an_insertion_passes) {
  map.set("A1", 1);
  EXPECT_EQ(map.collisions, 0u);
  map.set("A2", 1);  // passes A1
  EXPECT_EQ(map.collisions, 1u);
  map.set("A3", 1);  // passes A1, A2
  EXPECT_EQ(map.collisions, 3u);
  map.set("B", 1);  // growing moves three colliding keys without counting; B passes two of them
  EXPECT_EQ(map.collisions, 5u);
}

TEST_F(hashmap_of_first_bytes, replacement_counts_the_slots_that_it_passes_too) {
  for (const char* key : {"A1", "A2", "A3"}) map.set(key, 1);
  map.set("B", 1);
  map.set("A1", 2);  // passes A2 and A3
  EXPECT_EQ(map.collisions, 7u);
}

TEST_F(hashmap_of_first_bytes, looking_up_and_removing_count_no_collisions) {
  for (const char* key : {"A1", "A2", "A3"}) map.set(key, 1);
  map.get("A3");
  map.get("A4");
  map.remove("A2");
  map.remove("A4");
  EXPECT_EQ(map.collisions, 3u);
}

TEST_F(hashmap_of_first_bytes, collision_counter_wraps) {
  map.set("A1", 1);
  map.collisions = UINT32_MAX;
  map.set("A2", 1);
  EXPECT_EQ(map.collisions, 0u);
}

TEST_F(hashmap_of_first_bytes, equal_hashes_do_not_make_keys_equal) {
  map.set("A", 1);
  map.set("AA", 2);
  map.set("AB", 3);
  EXPECT_EQ(map.get("A"), 1);
  EXPECT_EQ(map.get("AA"), 2);
  EXPECT_EQ(map.get("AB"), 3);
  EXPECT_EQ(map.get("AC"), 0);
}

TEST_F(hashmap_of_first_bytes, stored_hash_is_compared_before_the_bytes) {
  map.set("A", 1);
  map.hash = [](const char*, unsigned) { return uint32_t{'A' + 3}; };  // the same slot of three, another hash
  EXPECT_EQ(map.get("A"), 0);
  map.hash = first_byte_hash;
  EXPECT_EQ(map.get("A"), 1);
}

TEST_F(hashmap_of_first_bytes, removal_rebuilds_the_table_at_its_capacity_and_leaves_no_hole) {
  for (const char* key : {"A1", "A2", "A3"}) map.set(key, 1);
  map.remove("A1");  // slots 5, 0, 1 were taken; A2 is moved first
  EXPECT_EQ(map.capacity, 6u);
  EXPECT_EQ(slot_of(map, "A1"), -1);
  EXPECT_EQ(slot_of(map, "A2"), 5);
  EXPECT_EQ(slot_of(map, "A3"), 0);
  EXPECT_EQ(map.slots[1].key, nullptr);
}

TEST(hashmap, removal_keeps_the_others_in_order_and_findable) {
  for (const char* gone : {"a", "c", "e"}) {
    hashmap<int> map;
    keys left;
    for (const char* key : {"a", "b", "c", "d", "e"}) {
      map.set(key, key[0]);
      if (std::string(key) != gone) left.push_back(key);
    }
    map.remove(gone);
    EXPECT_EQ(keys_of(map), left) << gone;
    EXPECT_EQ(map.keys[4], nullptr);
    EXPECT_EQ(map.get(gone), 0);
    for (const auto& key : left) EXPECT_EQ(map.get(key), key[0]);
  }
}

TEST(hashmap, removing_an_absent_key_changes_nothing) {
  hashmap<int> map;
  map.set("a", 1);
  map.set("b", 2);
  const auto* slots = map.slots;
  map.remove("c");
  EXPECT_EQ(map.slots, slots);  // not even rebuilt
  EXPECT_EQ(keys_of(map), (keys{"a", "b"}));
}

TEST(hashmap, removed_key_that_comes_back_stands_last) {
  hashmap<int> map;
  for (const char* key : {"a", "b", "c"}) map.set(key, 1);
  map.remove("a");
  map.set("a", 2);
  EXPECT_EQ(keys_of(map), (keys{"b", "c", "a"}));
  EXPECT_EQ(map.get("a"), 2);
}

TEST(hashmap, never_touches_the_values) {
  int x = 1, y = 2;
  {
    hashmap<int*> map;
    map.set("x", &x);
    map.set("y", &y);
    map.set("x", &y);
    map.remove("y");
  }
  EXPECT_EQ(x, 1);
  EXPECT_EQ(y, 2);
}

TEST(hashmap, destructor_passes_over_a_null_in_the_key_list) {
  const size_t before = bytes_in_use();
  {
    hashmap<int> map;
    map.set("a", 1);
    map.set("b", 2);
    delete map.keys[0];
    map.keys[0] = nullptr;
    EXPECT_GT(bytes_in_use(), before);
  }
  EXPECT_EQ(bytes_in_use(), before);
}

// The largest table has 3 * 2^30 slots, more than a test can allocate. The test only sets the fields: a key
// whose hash is below 3 is found in the first slots, and replacing its value touches no other slot.
TEST(hashmap, table_that_would_overflow_the_counters_is_not_doubled) {
  hashmap<int> map;
  map.hash = [](const char*, unsigned) { return uint32_t{1}; };
  map.set("a", 1);
  for (uint32_t largest : {3u << 30, 1u << 31, UINT32_MAX}) {
    map.capacity = largest;
    map.count = largest / 2;
    map.set("a", 2);
    EXPECT_EQ(map.capacity, largest);
  }
  map.capacity = 3;
  map.count = 1;
  EXPECT_EQ(map.get("a"), 2);
}

// A table can only be full when its capacity cannot double any more, so the test fills the slots by hand.
struct full_hashmap : hashmap_of_first_bytes {
  std::string strangers[2] = {"B", "C"};

  full_hashmap() {
    map.set("A", 1);
    for (uint32_t i = 0, used = 0; i < map.capacity; i++) {
      if (map.slots[i].key) continue;
      map.slots[i].key = &strangers[used++];
      map.slots[i].hash = 'B';
    }
    map.count = 0;  // or set() would grow the table
  }
  ~full_hashmap() override { map.count = 1; }
};

TEST_F(full_hashmap, insertion_prints_that_it_is_full_and_stores_nothing) {
  console out;
  map.set("D", 4);
  EXPECT_EQ(__fpending(stdout), 0u) << "bytes that were not flushed";
  EXPECT_EQ(out.text(), "Error! Out of space!\n");
  EXPECT_EQ(map.count, 0u);
  EXPECT_EQ(map.capacity, 3u);
  EXPECT_EQ(slot_of(map, "D"), -1);
  EXPECT_EQ(*map.keys[0], "A");
}

TEST_F(full_hashmap, present_key_can_still_be_replaced) {
  console out;
  map.set("A", 9);
  EXPECT_EQ(out.text(), "");
  map.count = 1;
  EXPECT_EQ(map.get("A"), 9);
}

TEST_F(full_hashmap, search_for_an_absent_key_ends) {
  map.count = 1;
  EXPECT_EQ(map.get("D"), 0);
  map.remove("D");
  EXPECT_EQ(map.count, 1u);
}
