// Containers and values that are refused memory: nothing is lost, and they keep what they held.

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <new>
#include <string>

#include "base/arraylist.h"
#include "base/hashmap.h"
#include "base/var.h"
#include "tests/base/heap.h"
#include "tests/support/operator_new.h"

namespace {

int granted = -1;  // allocations that still succeed before one is refused; negative: none will be

bool is_refused() {
  return granted >= 0 && granted-- == 0;
}

}  // namespace

// The linker replaces the C library's functions by these, in our own code only. `new` calls the first.
extern "C" {

void* __real_calloc(size_t count, size_t size);
void* __real_realloc(void* memory, size_t size);

void* __wrap_calloc(size_t count, size_t size) {
  return is_refused() ? nullptr : __real_calloc(count, size);
}

void* __wrap_realloc(void* memory, size_t size) {
  return is_refused() ? nullptr : __real_realloc(memory, size);
}

}  // extern "C"

namespace {

/* Makes a thing and changes it, in several runs. In the first run, the first allocation of the change is
 * refused, in the second run the second one, and so on, until the change succeeds. Expects that `content`
 * returns the same before and after a refused change, and that all memory is free when the thing has ended.
 */
template <class Make, class Change, class Content>
void refuse_every_allocation(Make make, Change change, Content content) {
  bool has_thrown = true;
  int refusals = 0;
  for (; has_thrown && refusals < 20; refusals++) {
    const size_t before = bytes_in_use();
    {
      auto thing = make();
      const auto old_content = content(*thing);
      granted = refusals;
      try {
        change(*thing);
        has_thrown = false;
      } catch (const std::bad_alloc&) {
      }
      granted = -1;
      EXPECT_EQ(content(*thing) == old_content, has_thrown) << "allocation " << refusals << " was refused";
    }
    EXPECT_EQ(bytes_in_use(), before) << "allocation " << refusals << " was refused";
  }
  EXPECT_GT(refusals, 1) << "the change needs no memory";
  EXPECT_FALSE(has_thrown);
}

const char* const long_text = "a text that is longer than a string holds without a block";

template <class Array>
std::unique_ptr<var> values(Array make, int count) {
  auto v = std::make_unique<var>(make());
  for (int i = 0; i < count; i++) {
    if (v->kind == var::array_kind)
      v->push(i);
    else
      v->set(std::to_string(i), i);
  }
  return v;
}

std::string text_of(const var& v) {
  return v;
}

using numbers = base::hashmap<int>;

std::unique_ptr<numbers> numbers_up_to(int count) {
  auto map = std::make_unique<numbers>();
  for (int i = 1; i <= count; i++) map->set(std::to_string(i), i);
  return map;
}

// The pairs in the order of the keys. Each value is looked up by its key.
std::string pairs_of(const numbers& map) {
  std::string text;
  for (uint32_t i = 0; i < map.count; i++)
    text += *map.keys[i] + "=" + std::to_string(map.get(*map.keys[i])) + " ";
  EXPECT_TRUE(!map.keys || !map.keys[map.count]);
  EXPECT_EQ(map.slots == nullptr, map.capacity == 0);
  EXPECT_EQ(map.keys == nullptr, map.capacity == 0);
  return text;
}

}  // namespace

TEST(refused_memory, pushed_value_is_there_or_leaves_nothing) {
  for (int count : {0, 1, 2, 4})
    refuse_every_allocation([=] { return values(var::array, count); }, [](var& v) { v.push(long_text); },
                            text_of);
}

TEST(refused_memory, value_that_is_set_is_there_or_leaves_nothing) {
  for (int count : {0, 1, 2, 3})
    refuse_every_allocation([=] { return values(var::object, count); },
                            [](var& v) { v.set(long_text, long_text); }, text_of);
}

TEST(refused_memory, value_that_is_not_replaced_is_still_there) {
  refuse_every_allocation([] { return values(var::object, 3); }, [](var& v) { v.set("1", long_text); },
                          text_of);
}

TEST(refused_memory, list_that_cannot_grow_is_as_before) {
  static int x = 0;
  for (int count : {0, 2, 4}) {
    refuse_every_allocation(
        [=] {
          auto list = std::make_unique<base::arraylist<int*>>();
          for (int i = 0; i < count; i++) list->add(&x);
          return list;
        },
        [](auto& list) { list.add(&x); },
        [](const auto& list) {
          EXPECT_EQ(list.data == nullptr, list.capacity == 0);
          EXPECT_TRUE(!list.data || !list.data[list.count]);
          return list.count;
        });
  }
}

TEST(refused_memory, key_that_cannot_be_stored_is_not_in_the_map) {
  for (int count : {0, 1, 3, 6})
    refuse_every_allocation([=] { return numbers_up_to(count); }, [](numbers& map) { map.set(long_text, 7); },
                            pairs_of);
}

TEST(refused_memory, key_that_cannot_be_removed_is_still_in_the_map) {
  refuse_every_allocation([] { return numbers_up_to(5); }, [](numbers& map) { map.remove("3"); }, pairs_of);
}
