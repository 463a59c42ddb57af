// The pool of blocks, and the state of queues and pool after malloc() has refused a block.

#include "base/block_pool.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <set>
#include <string>
#include <vector>

#include "base/byte_queue.h"
#include "tests/base/heap.h"

using base::block_pool;
using base::byte_queue;

namespace {

int trims = 0;  // calls of malloc_trim()

// malloc() in our own code. The named faults cannot refuse it, because their lists use malloc(), too.
struct {
  int calls = 0;
  int granted = 0;  // calls that still succeed
  int refused = 0;  // calls that are then refused
  int gap = 0;      // if not 0: this many succeed after each refusal, then one is refused again
} mallocs;

void refuse_after(int granted, int times = 1, int gap = 0) {
  mallocs = {0, granted, times, gap};
}

bool is_refused() {
  mallocs.calls++;
  if (mallocs.granted > 0 || mallocs.refused == 0) {
    mallocs.granted--;
    return false;
  }
  if (mallocs.gap > 0)
    mallocs.granted = mallocs.gap;
  else
    mallocs.refused--;
  return true;
}

}  // namespace

extern "C" {

// Replaces the function of the C library, and calls it.
int malloc_trim(size_t pad) noexcept {
  trims++;
  static auto next = reinterpret_cast<int (*)(size_t)>(dlsym(RTLD_NEXT, "malloc_trim"));
  return next(pad);
}

void* __real_malloc(size_t size);

// The linker replaces malloc() by this function, in our own code only.
void* __wrap_malloc(size_t size) {
  return is_refused() ? nullptr : __real_malloc(size);
}

}  // extern "C"

namespace {

constexpr size_t full = block_pool::full_size;
constexpr int most_spare = block_pool::most_spare;
constexpr int before_trim = block_pool::freed_before_trim;
constexpr int when_short = block_pool::in_use_when_short;
constexpr size_t header = 32;  // of a block in a queue

struct block_pool_test : testing::Test {
  block_pool pool;
  std::vector<void*> taken;

  block_pool_test() {
    trims = 0;
    mallocs = {};
  }
  ~block_pool_test() override {
    mallocs = {};
    give_back(static_cast<int>(taken.size()));
  }

  void take(int count) {
    while (count-- > 0) taken.push_back(pool.take(full));
  }
  void give_back(int count) {
    for (; count > 0; count--) {
      pool.give_back(taken.back(), full);
      taken.pop_back();
    }
  }
  void expect(int spare, int in_use, int freed) const {
    EXPECT_EQ(pool.spare(), spare);
    EXPECT_EQ(pool.in_use(), in_use);
    EXPECT_EQ(pool.freed(), freed);
  }
};

}  // namespace

TEST_F(block_pool_test, blocks_have_the_size_asked_for_and_do_not_overlap) {
  std::vector<std::pair<char*, size_t>> blocks;
  for (size_t size : {size_t{512}, size_t{4096}, full - 1, full, full, size_t{512}}) {
    blocks.emplace_back(static_cast<char*>(pool.take(size)), size);
    std::fill_n(blocks.back().first, size, static_cast<char>(blocks.size()));
  }
  for (size_t i = 0; i < blocks.size(); i++) {
    const auto [place, size] = blocks[i];
    EXPECT_EQ(std::count(place, place + size, static_cast<char>(i + 1)), static_cast<int64_t>(size)) << i;
    pool.give_back(place, size);
  }
}

TEST_F(block_pool_test, smaller_blocks_return_to_malloc_at_once_and_count_nowhere) {
  for (size_t size : {size_t{4096}, full / 2, full - 1}) {
    const size_t before = bytes_in_use();
    void* block = pool.take(size);
    expect(0, 0, 0);
    EXPECT_GE(bytes_in_use(), before + size);
    pool.give_back(block, size);
    expect(0, 0, 0);
    EXPECT_EQ(bytes_in_use(), before) << size;
  }
}

TEST_F(block_pool_test, full_blocks_are_kept_up_to_a_limit_and_serve_again) {
  take(most_spare + 10);
  const std::set<void*> first(taken.begin(), taken.end());
  expect(0, most_spare + 10, 0);
  give_back(most_spare);
  expect(most_spare, 10, 0);
  const size_t kept = bytes_in_use();
  give_back(10);
  expect(most_spare, 0, 10);
  EXPECT_LE(bytes_in_use(), kept - 10 * full);
  mallocs = {};
  take(most_spare);
  EXPECT_EQ(mallocs.calls, 0);
  expect(0, most_spare, 10);
  for (void* block : taken) EXPECT_EQ(first.count(block), 1U);
  EXPECT_EQ(std::set<void*>(taken.begin(), taken.end()).size(), taken.size()) << "a block has two users";
  take(1);
  EXPECT_EQ(mallocs.calls, 1);
}

TEST_F(block_pool_test, malloc_is_trimmed_once_when_little_of_a_long_queue_is_left) {
  const int all = most_spare + before_trim + 100;
  take(all);
  for (int left = all - 1; left >= 0; left--) {
    give_back(1);
    const bool is_trimmed = left <= when_short;
    ASSERT_EQ(trims, is_trimmed ? 1 : 0) << left << " blocks left";
    ASSERT_EQ(pool.freed(),
              std::max(0, all - most_spare - left - (is_trimmed ? all - most_spare - when_short : 0)));
    ASSERT_TRUE(pool.freed() < before_trim || pool.in_use() > when_short);
  }
}

TEST_F(block_pool_test, malloc_is_not_trimmed_before_enough_blocks_were_freed) {
  take(most_spare + before_trim - 1);
  give_back(most_spare + before_trim - 1);
  expect(most_spare, 0, before_trim - 1);
  EXPECT_EQ(trims, 0);
  take(most_spare + 1);
  give_back(most_spare);
  EXPECT_EQ(trims, 0);
  give_back(1);
  EXPECT_EQ(trims, 1);
  expect(most_spare, 0, 0);
}

TEST_F(block_pool_test, smaller_blocks_never_trim_malloc) {
  take(most_spare + before_trim + when_short + 1);
  give_back(most_spare + before_trim);
  expect(most_spare, when_short + 1, before_trim);
  pool.give_back(pool.take(full - 1), full - 1);
  EXPECT_EQ(trims, 0);
  give_back(1);
  EXPECT_EQ(trims, 1);
}

TEST_F(block_pool_test, refused_block_leaves_the_pool_as_it_was) {
  take(most_spare + 3);
  give_back(most_spare + 1);
  refuse_after(0, 2);
  EXPECT_THROW(pool.take(512), std::bad_alloc);
  expect(most_spare, 2, 1);
  take(most_spare);  // the spare ones need no malloc()
  EXPECT_THROW(pool.take(full), std::bad_alloc);
  expect(0, most_spare + 2, 1);
  take(1);
  expect(0, most_spare + 3, 1);
}

TEST_F(block_pool_test, end_of_a_pool_frees_its_spare_blocks) {
  const size_t before = bytes_in_use();
  {
    block_pool other;
    void* blocks[10];
    for (void*& block : blocks) block = other.take(full);
    for (void* block : blocks) other.give_back(block, full);
    EXPECT_GE(bytes_in_use(), before + 10 * full);
  }
  EXPECT_EQ(bytes_in_use(), before);
}

TEST_F(block_pool_test, all_queues_share_one) {
  block_pool& shared = block_pool::shared();
  const int in_use = shared.in_use(), spare = shared.spare();
  {
    byte_queue a(std::string(2 * full, 'a')), b(std::string(2 * full, 'b'));
    EXPECT_EQ(shared.in_use(), in_use + 6);  // the headers take part of a third one each
  }
  EXPECT_EQ(shared.in_use(), in_use);
  EXPECT_EQ(shared.spare(), std::min(most_spare, std::max(spare, 6)));
}

namespace {

// While the spare blocks are taken, each full-size block has to come from malloc().
struct byte_queue_without_memory : testing::Test {
  const std::string text = numbers();

  // The text fills 3 full-size blocks and part of a fourth. A lost or doubled byte would show.
  static std::string numbers() {
    std::string s;
    for (int i = 0; s.size() < 3 * full + 1000; i++) s += std::to_string(i) + " ";
    return s;
  }

  std::vector<void*> spares;

  byte_queue_without_memory() { take_spares(); }
  ~byte_queue_without_memory() override {
    mallocs = {};
    for (void* block : spares) block_pool::shared().give_back(block, full);
  }
  void take_spares() {
    mallocs = {};
    while (block_pool::shared().spare() > 0) spares.push_back(block_pool::shared().take(full));
  }

  // Expects that it is a queue like any other.
  static void expect_whole(byte_queue& q, const std::string& content) {
    ASSERT_EQ(q.size(), content.size());
    EXPECT_EQ(q.str(), content);
    q += "more";
    std::string got(q.size() + 1, '#');
    EXPECT_EQ(q.consume(got.data(), got.size()), content.size() + 4);
    EXPECT_EQ(got, content + "more#");
    EXPECT_TRUE(q.empty());
  }
};

}  // namespace

TEST_F(byte_queue_without_memory, append_keeps_what_was_copied_and_counts_it) {
  size_t last = 0;
  int refused = 0;
  for (bool is_refused = true; is_refused;) {
    byte_queue q("before");
    take_spares();
    refuse_after(refused);
    try {
      q.append(text);
      is_refused = false;
    } catch (const std::bad_alloc&) {
      refused++;
    }
    mallocs = {};
    const size_t copied = q.size() - strlen("before");
    EXPECT_GT(copied, last) << "block " << refused;
    last = copied;
    expect_whole(q, "before" + text.substr(0, copied));
  }
  EXPECT_EQ(last, text.size());
  EXPECT_EQ(refused, 4) << "blocks after the first";
}

TEST_F(byte_queue_without_memory, append_to_an_empty_queue_may_be_tried_again) {
  byte_queue q;
  refuse_after(0, 2);
  EXPECT_THROW(q.append("x", 1), std::bad_alloc);
  EXPECT_THROW(q += text, std::bad_alloc);
  EXPECT_TRUE(q.empty());
  EXPECT_EQ(q.str(), "");
  q += text;
  expect_whole(q, text);
}

TEST_F(byte_queue_without_memory, assignment_leaves_the_first_bytes_of_the_new_content) {
  for (int refused = 0; refused < 3; refused++) {
    const std::string old(1000, 'o');  // in a block that stays with the emptied queue
    byte_queue from_string(old), from_literal(old);
    take_spares();
    refuse_after(refused);
    EXPECT_THROW(from_string = text, std::bad_alloc);
    take_spares();
    refuse_after(refused);
    EXPECT_THROW(from_literal = text.c_str(), std::bad_alloc);
    mallocs = {};
    const size_t copied = old.size() + static_cast<size_t>(refused) * (full - header);
    EXPECT_EQ(from_string.size(), copied);
    EXPECT_EQ(from_literal.size(), copied);
    expect_whole(from_string, text.substr(0, copied));
    expect_whole(from_literal, text.substr(0, copied));
  }
}

TEST_F(byte_queue_without_memory, failed_constructor_gives_back_the_blocks_that_it_had) {
  for (int refused = 0; refused < 4; refused++) {
    const int in_use = block_pool::shared().in_use();
    refuse_after(refused);
    EXPECT_THROW(byte_queue q(text), std::bad_alloc);
    EXPECT_EQ(block_pool::shared().in_use(), in_use) << refused;
    EXPECT_EQ(block_pool::shared().spare(), refused);
    take_spares();
    refuse_after(refused);
    EXPECT_THROW(byte_queue q(text.c_str()), std::bad_alloc);
    EXPECT_EQ(block_pool::shared().spare(), refused);
    take_spares();
  }
}

TEST_F(byte_queue_without_memory, every_refusal_in_a_long_run_leaves_the_queue_whole) {
  for (int gap : {1, 2, 3}) {
    byte_queue q;
    std::string model;
    int refusals = 0;
    take_spares();
    refuse_after(0, 1, gap);
    for (int step = 0; step < 100; step++) {
      const size_t len = 1 + static_cast<size_t>(step * 7919) % text.size();
      const size_t before = q.size();
      try {
        q.append(text.data(), len);
      } catch (const std::bad_alloc&) {
        refusals++;
      }
      ASSERT_LE(q.size(), before + len);
      model.append(text, 0, q.size() - before);
      std::string got(len / static_cast<size_t>(step % 3 + 1), '#');
      got.resize(q.consume(got.data(), got.size()));
      ASSERT_TRUE(model.compare(0, got.size(), got) == 0) << "step " << step;
      model.erase(0, got.size());
      ASSERT_EQ(q.size(), model.size());
    }
    mallocs = {};
    EXPECT_GT(refusals, 10);
    expect_whole(q, model);
  }
}
