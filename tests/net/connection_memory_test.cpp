// The rules for the memory of connection objects on systems with pages of 4, 16 and 64 KiB. The tests cannot
// pretend that pages are smaller than those of this system. In place of a smaller size they use this system's
// size.

#include "net/connection_memory.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "net/connection.h"
#include "tests/support/faults.h"
#include "tests/support/operator_new.h"

namespace {

constexpr unsigned slots = connection_memory::slots;
constexpr unsigned most_spare = connection_memory::most_spare;
constexpr size_t smallest = sizeof(connection);

// Sizes of classes. Some fill their last cache line and some do not; some end close to the border of a page.
// One has fields of its own that are larger than the output buffer.
constexpr size_t sizes[] = {smallest,         smallest + 1,    smallest + 63,        smallest + 64,
                            smallest + 4095,  smallest + 4096, smallest + 16384 - 1, smallest + 65536 + 7,
                            2 * smallest + 33};

struct pages_test : testing::TestWithParam<size_t> {
  const size_t page = pretended(GetParam());
  connection_memory memory;

  ~pages_test() override {
    faults::clear();
    new_faults() = {};
  }

  static size_t pretended(size_t size) {
    faults::clear();
    faults::page_size() = std::max(size, static_cast<size_t>(getpagesize()));
    return faults::page_size();
  }

  char* take(size_t size) { return static_cast<char*>(memory.take(size)); }
  std::vector<char*> take(size_t size, size_t count) {
    std::vector<char*> objects;
    while (objects.size() < count) objects.push_back(take(size));
    return objects;
  }
  void give_back(std::vector<char*>& objects) {
    for (char* object : objects) memory.give_back(object);
    objects.clear();
  }

  char* page_behind(char* place) const { return page_of(place) + page; }
  char* page_of(char* place) const { return place - reinterpret_cast<uintptr_t>(place) % page; }
};

bool holds_only(const char* object, size_t size, char byte) {
  return object[0] == byte && memcmp(object, object + 1, size - 1) == 0;
}

int calls(const char* name) {
  return faults::calls()[name];
}

bool is_resident(char* place) {
  unsigned char in_memory = 0;
  const auto real = static_cast<uintptr_t>(getpagesize());
  EXPECT_EQ(mincore(place - reinterpret_cast<uintptr_t>(place) % real, 1, &in_memory), 0);
  return (in_memory & 1) != 0;
}

std::string name_of(const testing::TestParamInfo<size_t>& info) {
  return std::to_string(info.param / 1024) + "_kib";
}

INSTANTIATE_TEST_SUITE_P(, pages_test, testing::Values(4096, 16384, 65536), name_of);

}  // namespace

TEST_P(pages_test, slots_are_zero_do_not_overlap_and_begin_with_a_cache_line) {
  for (size_t size : sizes) {
    std::vector<char*> objects = take(size, 2 * slots + 1);
    for (size_t i = 0; i < objects.size(); i++) {
      ASSERT_EQ(reinterpret_cast<uintptr_t>(objects[i]) % 64, 0U);
      ASSERT_TRUE(holds_only(objects[i], size, '\0')) << "object " << i;
      memset(objects[i], static_cast<int>(i + 1), size);
    }
    for (size_t i = 0; i < objects.size(); i++)
      ASSERT_TRUE(holds_only(objects[i], size, static_cast<char>(i + 1))) << "object " << i;
    give_back(objects);
  }
}

TEST_P(pages_test, ended_object_is_zero_for_the_next_one_and_its_neighbours_stay) {
  for (size_t size : sizes) {
    std::vector<char*> objects = take(size, slots);
    for (char* object : objects) memset(object, 'n', size);
    for (char* object : objects) {
      memory.give_back(object);
      ASSERT_EQ(take(size), object) << "the only free slot";
      ASSERT_TRUE(holds_only(object, size, '\0')) << size << " bytes";
      memset(object, 'n', size);
    }
    for (char* object : objects) ASSERT_TRUE(holds_only(object, size, 'n')) << size << " bytes";
    give_back(objects);
  }
}

TEST_P(pages_test, single_byte_is_cleared_wherever_it_was_written) {
  const size_t size = smallest + 100;
  std::vector<char*> objects = take(size, 2);
  char* object = objects[1];  // the first one begins with a page
  const auto front = static_cast<size_t>(page_behind(object) - object);
  const auto tail = static_cast<size_t>(page_of(object + connection::out_capacity) - object);
  for (size_t at : {size_t{0}, front - 1, front, front + page, tail - 1, tail, size - 1}) {
    object[at] = 'x';
    memory.give_back(object);
    ASSERT_EQ(take(size), object);
    ASSERT_EQ(object[at], '\0') << at << " of " << size;
  }
  give_back(objects);
}

TEST_P(pages_test, little_output_is_cleared_in_place_with_all_fields) {
  const size_t fields = smallest - connection::out_capacity;  // more than stand in front of the buffer
  for (size_t size : sizes) {
    std::vector<char*> objects = take(size, 2);
    memset(objects[0], 'n', size);
    char* object = objects[1];
    for (size_t filled : {size_t{0}, size_t{1}, page - 1, std::min(page, size_t{16384})}) {
      if (filled > 16384) continue;
      memset(object, 'x', fields + filled);
      memset(object + connection::out_capacity + fields - 16, 'x',
             size - connection::out_capacity - fields + 16);
      const int before = calls("madvise");
      memory.give_back(object, filled);
      EXPECT_EQ(calls("madvise"), before);
      ASSERT_EQ(take(size), object);
      ASSERT_TRUE(holds_only(object, size, '\0')) << filled << " of " << size;
    }
    ASSERT_TRUE(holds_only(objects[0], size, 'n'));
    give_back(objects);
  }
}

// The first object of a row begins with a page, the fourth in the middle of a page.
TEST_P(pages_test, pages_that_hold_only_output_are_returned_and_the_others_kept) {
  const auto real = static_cast<size_t>(getpagesize());
  std::vector<char*> objects = take(smallest, slots);
  for (char* object : {objects[0], objects[3]}) {
    char* const end = object + smallest;
    char* const tail = page_of(object + connection::out_capacity);
    for (size_t filled : {size_t{1}, smallest}) {
      memset(object, 'x', filled);
      end[-1] = 'x';
      memory.give_back(object);
      EXPECT_TRUE(is_resident(object));
      EXPECT_TRUE(is_resident(end - 1));
      for (char* p = page_behind(object); p < tail; p += real)
        ASSERT_FALSE(is_resident(p)) << (p - object) << " bytes after the beginning";
      ASSERT_EQ(take(smallest), object);
    }
  }
  give_back(objects);
}

TEST_P(pages_test, pages_that_the_system_does_not_take_are_cleared_in_place) {
  std::vector<char*> objects = take(smallest, 2);
  for (char* object : objects) memset(object, 'x', smallest);
  faults::of()["madvise"] = {0, 1, EINVAL};
  memory.give_back(objects[0]);
  EXPECT_EQ(calls("madvise"), 2) << "one call for the row, one for the object";
  ASSERT_EQ(take(smallest), objects[0]);
  EXPECT_TRUE(holds_only(objects[0], smallest, '\0'));
  EXPECT_TRUE(holds_only(objects[1], smallest, 'x'));
  give_back(objects);
}

TEST_P(pages_test, free_slot_is_used_again_before_another_row_is_mapped) {
  std::vector<char*> objects = take(smallest, slots);
  EXPECT_EQ(calls("mmap"), 1);
  for (int i = 0; i < 3; i++) {
    memory.give_back(objects[5]);
    ASSERT_EQ(take(smallest), objects[5]);
  }
  EXPECT_EQ(calls("mmap"), 1);
  objects.push_back(take(smallest));
  EXPECT_EQ(calls("mmap"), 2);
  objects.push_back(take(smallest + 1));
  EXPECT_EQ(calls("mmap"), 3) << "a row holds objects of one size";
  give_back(objects);
}

TEST_P(pages_test, row_without_an_object_goes_back_when_enough_free_slots_remain) {
  std::vector<char*> objects = take(smallest, most_spare + slots);
  EXPECT_EQ(calls("mmap"), static_cast<int>(most_spare / slots + 1));
  while (objects.size() > 1) {
    memory.give_back(objects.back());
    objects.pop_back();
  }
  EXPECT_EQ(calls("munmap"), 0);
  give_back(objects);
  EXPECT_EQ(calls("munmap"), 1);
  objects = take(smallest, most_spare);
  EXPECT_EQ(calls("mmap"), static_cast<int>(most_spare / slots + 1)) << "the others are there";
  give_back(objects);
  EXPECT_EQ(calls("munmap"), 1);
}

TEST_P(pages_test, row_without_an_object_stays_when_one_free_slot_fewer_would_remain) {
  char* other = take(smallest + 1);  // there are 7 free slots now, with those of this row
  std::vector<char*> objects = take(smallest, most_spare);
  give_back(objects);
  EXPECT_EQ(calls("munmap"), 0);
  memory.give_back(other);
  EXPECT_EQ(calls("munmap"), 1);
}

TEST_P(pages_test, row_that_the_system_does_not_unmap_serves_again) {
  std::vector<char*> objects = take(smallest, most_spare + slots);
  const std::vector<char*> places = objects;
  const int mapped = calls("mmap");
  faults::of()["munmap"] = {0, 1, ENOMEM};
  give_back(objects);
  EXPECT_EQ(calls("munmap"), 1);
  objects = take(smallest, most_spare + slots);
  EXPECT_EQ(calls("mmap"), mapped);
  EXPECT_TRUE(std::is_permutation(places.begin(), places.end(), objects.begin(), objects.end()));
  give_back(objects);
  EXPECT_EQ(calls("munmap"), 2);
  objects = take(smallest, most_spare + slots);
  EXPECT_EQ(calls("mmap"), mapped + 1);
  give_back(objects);
}

TEST_P(pages_test, take_returns_null_when_the_system_maps_no_more_and_works_again_later) {
  std::vector<char*> objects = take(smallest, slots);
  faults::of()["mmap"] = {0, 2, ENOMEM};
  EXPECT_EQ(take(smallest), nullptr);
  EXPECT_EQ(take(smallest + 1), nullptr);
  objects.push_back(take(smallest));
  EXPECT_TRUE(holds_only(objects.back(), smallest, '\0'));
  give_back(objects);
}

TEST_P(pages_test, take_returns_null_when_the_list_of_rows_cannot_grow_and_maps_nothing) {
  std::vector<char*> objects;
  for (int rows = 0; rows < 5; rows++) {
    for (char* object : take(smallest, slots)) objects.push_back(object);
    const int mapped = calls("mmap") - calls("munmap");
    new_faults() = {true, 0, 0, 1};
    char* const refused = take(smallest);
    const int asked = new_faults().calls;
    new_faults() = {};
    if (asked == 0) {
      objects.push_back(refused);  // the list had room for another row
      continue;
    }
    EXPECT_EQ(refused, nullptr);
    EXPECT_EQ(calls("mmap") - calls("munmap"), mapped);
  }
  for (char* object : objects) ASSERT_TRUE(holds_only(object, smallest, '\0'));
  give_back(objects);
}

TEST_P(pages_test, row_with_a_taken_slot_stays_mapped_however_many_slots_are_free) {
  std::vector<char*> all = take(smallest, 2 * most_spare);
  std::vector<char*> kept, ended;
  for (size_t i = 0; i < all.size(); i++) {
    all[i][0] = 'k';
    (i % slots == 3 ? kept : ended).push_back(all[i]);
  }
  const int before = calls("munmap");
  give_back(ended);
  EXPECT_EQ(calls("munmap"), before);
  for (char* object : kept) ASSERT_EQ(object[0], 'k');
  give_back(kept);
}

TEST_P(pages_test, end_of_the_memory_unmaps_every_row) {
  const int before = calls("mmap") - calls("munmap");
  {
    connection_memory other;
    for (size_t extra : {size_t{1}, size_t{2}, size_t{3}}) other.give_back(other.take(smallest + 64 * extra));
    EXPECT_EQ(calls("mmap") - calls("munmap"), before + 3);
  }
  EXPECT_EQ(calls("mmap") - calls("munmap"), before);
}
