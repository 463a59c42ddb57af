#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "base/hashmap.h"

namespace {

// A map on vectors, written from the rules of hashmap and not from its code. It predicts every field.
class hashmap_model {
 public:
  struct slot {
    bool used = false;
    uint32_t hash = 0;
    std::string key;
    int value = 0;
  };

  std::vector<slot> slots;
  std::vector<std::string> keys;
  uint32_t collisions = 0;

  int get(const std::string& key) const {
    for (const auto& s : slots) {
      if (s.used && s.key == key) return s.value;
    }
    return 0;
  }

  void set(const std::string& key, uint32_t hash, int value) {
    if (slots.empty())
      slots.resize(3);
    else if (keys.size() >= slots.size() / 2)
      rebuild(2 * slots.size());
    size_t at = hash % slots.size();
    for (; slots[at].used && slots[at].key != key; at = (at + 1) % slots.size()) collisions++;
    if (!slots[at].used) keys.push_back(key);
    slots[at] = {true, hash, key, value};
  }

  void remove(const std::string& key) {
    auto at = std::find(keys.begin(), keys.end(), key);
    if (at == keys.end()) return;
    keys.erase(at);
    for (auto& s : slots) {
      if (s.used && s.key == key) s.used = false;
    }
    rebuild(slots.size());
  }

 private:
  void rebuild(size_t capacity) {
    std::vector<slot> old(capacity);
    old.swap(slots);
    for (const auto& s : old) {
      if (!s.used) continue;
      size_t to = s.hash % capacity;
      while (slots[to].used) to = (to + 1) % capacity;
      slots[to] = s;
    }
  }
};

std::string random_key(std::mt19937& random) {
  std::string key(random() % 4, '\0');
  for (char& c : key) c = "ab\0\x80\xff"[random() % 5];
  return key;
}

bool is_same_slot(const base::hashmap<int>::slot& s, const hashmap_model::slot& expected) {
  if (!s.key || !expected.used) return !s.key && !expected.used;
  return *s.key == expected.key && s.hash == expected.hash && s.value == expected.value;
}

void expect_same(const base::hashmap<int>& map, const hashmap_model& model) {
  ASSERT_EQ(map.capacity, model.slots.size());
  ASSERT_EQ(map.count, model.keys.size());
  ASSERT_EQ(map.collisions, model.collisions);
  for (uint32_t i = 0; i < map.capacity; i++) ASSERT_TRUE(is_same_slot(map.slots[i], model.slots[i])) << i;
  for (uint32_t i = 0; i < map.count; i++) ASSERT_EQ(*map.keys[i], model.keys[i]);
  ASSERT_TRUE(map.capacity == 0 || !map.keys[map.count]);
}

uint32_t coarse_hash(const char* s, unsigned len) {
  return base::tovel_hash(s, len) % 5;
}

struct hashmap_random : testing::TestWithParam<decltype(&base::tovel_hash)> {};

}  // namespace

TEST_P(hashmap_random, every_field_is_as_predicted_over_a_long_run) {
  base::hashmap<int> map;
  map.hash = GetParam();
  hashmap_model model;
  std::mt19937 random(19);
  for (int step = 1; step <= 20000; step++) {
    const std::string key = random_key(random);
    const auto hash = map.hash(key.c_str(), static_cast<unsigned>(key.size()));
    const bool is_shrinking = step / 500 % 2 == 1;  // phases, so that the map gets large and nearly empty
    if (random() % 4 == 0) {
      ASSERT_EQ(map.get(key), model.get(key));
    } else if ((random() % 8 == 0) != is_shrinking) {
      map.remove(key);
      model.remove(key);
    } else {
      map.set(key, step);
      model.set(key, hash, step);
    }
    expect_same(map, model);
    ASSERT_FALSE(HasFatalFailure()) << "step " << step;
  }
  EXPECT_GT(map.capacity, 48u);
}

INSTANTIATE_TEST_SUITE_P(hash, hashmap_random, testing::Values(base::tovel_hash, coarse_hash),
                         [](const auto& test) { return test.index == 0 ? "tovel" : "colliding"; });
