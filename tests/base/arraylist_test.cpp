#include "base/arraylist.h"

#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <random>
#include <type_traits>
#include <vector>

using base::arraylist;

namespace {

struct arraylist_of_ints : testing::Test {
  int values[8] = {0, 1, 2, 3, 4, 5, 6, 7};
  arraylist<int*> list;

  void add(std::initializer_list<int> indexes) {
    for (int i : indexes) list.add(&values[i]);
  }

  // The elements, followed by a -1 if the array does not end with a null.
  std::vector<int> content() const {
    std::vector<int> out;
    for (uint32_t i = 0; i < list.count; i++) out.push_back(*list.data[i]);
    if (list.data && list.data[list.count]) out.push_back(-1);
    return out;
  }
};

using ints = std::vector<int>;

}  // namespace

TEST_F(arraylist_of_ints, is_made_of_its_three_fields_in_order_and_starts_with_nothing) {
  auto& [data, count, capacity] = list;
  static_assert(std::is_same_v<std::remove_reference_t<decltype(count)>, uint32_t>);
  static_assert(std::is_same_v<std::remove_reference_t<decltype(capacity)>, uint32_t>);
  EXPECT_EQ(&list.data, &data);
  EXPECT_EQ(&list.count, &count);
  EXPECT_EQ(&list.capacity, &capacity);
  EXPECT_EQ(data, nullptr);
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(capacity, 0u);
}

TEST_F(arraylist_of_ints, capacity_starts_at_two_and_doubles_when_it_is_used_up) {
  const uint32_t capacity_after[] = {2, 2, 4, 4, 8, 8, 8, 8, 16};
  for (uint32_t i = 0; i < std::size(capacity_after); i++) {
    add({0});
    EXPECT_EQ(list.capacity, capacity_after[i]) << i + 1 << " elements";
    EXPECT_EQ(list.count, i + 1);
  }
}

TEST_F(arraylist_of_ints, array_has_one_slot_more_than_its_capacity) {
  for (int i = 0; i < 20; i++) {
    add({0});
    EXPECT_GE(malloc_usable_size(list.data), (list.capacity + 1) * sizeof(int*));
  }
}

TEST_F(arraylist_of_ints, null_follows_the_last_element_after_every_add) {
  for (uint32_t i = 1; i <= 100; i++) {
    add({1});
    ASSERT_EQ(list.data[i], nullptr);
  }
}

TEST_F(arraylist_of_ints, reserved_room_is_closed_by_a_null_and_used_up_before_the_list_grows) {
  list.reserve(3);
  EXPECT_EQ(content(), ints{});
  EXPECT_EQ(list.data[0], nullptr);
  add({1, 2});
  list.reserve(5);
  EXPECT_EQ(content(), (ints{1, 2}));
  const auto* data = list.data;
  add({3, 4, 5});
  EXPECT_EQ(list.data, data);
  EXPECT_EQ(list.capacity, 5u);
  EXPECT_EQ(content(), (ints{1, 2, 3, 4, 5}));
  add({6});
  EXPECT_EQ(list.capacity, 10u);
}

// This maps 16 GiB of address space. Only one page of it takes memory: the page with the end of the array.
TEST_F(arraylist_of_ints, list_that_would_overflow_its_counters_is_not_doubled) {
  constexpr size_t largest = size_t{1} << 31;
  const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  const size_t bytes = largest * sizeof(int*) + page;
  void* space = mmap(nullptr, bytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  ASSERT_NE(space, MAP_FAILED);
  ASSERT_EQ(mprotect(static_cast<char*>(space) + bytes - page, page, PROT_READ | PROT_WRITE), 0);
  list.data = static_cast<int**>(space);
  list.count = list.capacity = uint32_t{largest};
  add({1});
  EXPECT_EQ(list.capacity, largest);
  EXPECT_EQ(list.count, largest + 1);
  EXPECT_EQ(list.data, space);
  EXPECT_EQ(list.data[largest], &values[1]);
  list.data = nullptr;
  munmap(space, bytes);
}

TEST_F(arraylist_of_ints, elements_stand_in_the_order_in_which_they_were_added) {
  add({3, 1, 2, 1});
  EXPECT_EQ(content(), (ints{3, 1, 2, 1}));
}

TEST_F(arraylist_of_ints, removal_takes_the_first_equal_element_and_keeps_the_order) {
  add({3, 1, 2, 1});
  EXPECT_TRUE(list.remove(&values[1]));
  EXPECT_EQ(content(), (ints{3, 2, 1}));
  EXPECT_TRUE(list.remove(&values[1]));
  EXPECT_EQ(content(), (ints{3, 2}));
  EXPECT_TRUE(list.remove(&values[3]));
  EXPECT_EQ(content(), (ints{2}));
  EXPECT_TRUE(list.remove(&values[2]));
  EXPECT_EQ(content(), ints{});
  EXPECT_EQ(list.capacity, 4u);
}

TEST_F(arraylist_of_ints, removing_an_absent_element_is_reported_and_changes_nothing) {
  EXPECT_FALSE(list.remove(&values[0]));
  add({1, 2});
  EXPECT_FALSE(list.remove(&values[0]));
  EXPECT_EQ(content(), (ints{1, 2}));
}

TEST_F(arraylist_of_ints, terminating_null_is_no_element) {
  add({1});
  EXPECT_FALSE(list.remove(nullptr));
  EXPECT_EQ(content(), ints{1});
}

TEST_F(arraylist_of_ints, pop_removes_the_last_element) {
  add({1, 2});
  list.pop();
  EXPECT_EQ(content(), ints{1});
  list.pop();
  EXPECT_EQ(content(), ints{});
  EXPECT_EQ(list.data[0], nullptr);
}

TEST_F(arraylist_of_ints, pop_of_an_empty_list_does_nothing) {
  list.pop();
  EXPECT_EQ(list.data, nullptr);
  add({1});
  list.pop();
  list.pop();
  EXPECT_EQ(list.count, 0u);
  EXPECT_EQ(list.capacity, 2u);
}

TEST_F(arraylist_of_ints, never_touches_the_elements) {
  {
    arraylist<int*> other;
    other.add(&values[5]);
    other.remove(&values[5]);
    other.add(&values[6]);
  }
  EXPECT_EQ(values[5], 5);
  EXPECT_EQ(values[6], 6);
}

TEST_F(arraylist_of_ints, behaves_like_a_vector_over_a_long_run) {
  ints model;
  size_t most = 0;
  std::mt19937 random(2);
  for (int step = 0; step < 20000; step++) {
    const int i = static_cast<int>(random() % 8);
    const auto action = random() % 100;
    if (action < (step / 1000 % 2 ? 30u : 70u)) {
      add({i});
      model.push_back(i);
    } else if (action < 90) {
      auto at = std::find(model.begin(), model.end(), i);
      ASSERT_EQ(list.remove(&values[i]), at != model.end());
      if (at != model.end()) model.erase(at);
    } else {
      list.pop();
      if (!model.empty()) model.pop_back();
    }
    most = std::max(most, model.size());
    ASSERT_EQ(content(), model) << "step " << step;
  }
  uint32_t capacity = 2;
  while (capacity < most) capacity *= 2;
  EXPECT_EQ(list.capacity, capacity);
}
