#include "base/byte_queue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "tests/base/heap.h"

using base::byte_queue;
using namespace std::string_literals;

namespace {

constexpr size_t kib = 1024;
constexpr size_t mib = 1024 * kib;

// What an emptied queue may keep, and what all queues together may keep for reuse. Both allow for the
// rounding of the allocator.
constexpr size_t kept_by_a_queue = 4 * kib;
constexpr size_t kept_by_all = 4 * mib + 64 * kib;

// A block's size includes its header. The C library may round the size up, by at most `rounding` bytes.
constexpr size_t header = 32;
constexpr size_t rounding = 24;

// How many full-size blocks are kept for all queues together.
constexpr size_t full_block = 64 * kib;
constexpr size_t spare_blocks = 64;

// Lengths around the block sizes, with and without room for a block's header.
constexpr size_t lengths[] = {0,     1,     31,    32,    479,   480,   481,   511,    512,
                              513,   4063,  4064,  4065,  4095,  4096,  4097,  8191,   8192,
                              16384, 65503, 65504, 65505, 65535, 65536, 65537, 131072, 200000};

// `len` bytes that repeat only after a prime number, so that a lost or doubled byte shows.
std::string stream(size_t len, size_t from = 0) {
  std::string s(len, '\0');
  for (size_t i = 0; i < len; i++) s[i] = static_cast<char>((from + i) % 251);
  return s;
}

// A block that ends with its last byte, so that the sanitizer sees a read or a write after it.
std::unique_ptr<char[]> exact_copy(const std::string& s) {
  std::unique_ptr<char[]> copy(new char[s.size()]);
  s.copy(copy.get(), s.size());
  return copy;
}

std::string consume(byte_queue& q, size_t cap) {
  auto buf = exact_copy(std::string(cap, '#'));
  size_t n = q.consume(buf.get(), cap);
  EXPECT_LE(n, cap);
  EXPECT_EQ(std::string(buf.get() + n, cap - n), std::string(cap - n, '#')) << "bytes after the result";
  return std::string(buf.get(), n);
}

void drain(byte_queue& q, size_t step = 16 * kib) {
  while (!q.empty()) consume(q, step);
}

// A queue of so many full-size blocks.
std::string blocks(size_t count) {
  return stream(count * (full_block - header));
}

// For tests that count blocks: holds all spare blocks as long as it lives.
struct byte_queue_without_spares : testing::Test {
  byte_queue holder{blocks(spare_blocks)};
};

}  // namespace

TEST(byte_queue, starts_empty) {
  byte_queue q;
  EXPECT_TRUE(q.empty());
  EXPECT_EQ(q.size(), 0u);
  EXPECT_EQ(q.length(), 0u);
  EXPECT_EQ(q.str(), "");
  EXPECT_EQ(consume(q, 10), "");
}

TEST(byte_queue, is_built_from_and_assigned_from_strings) {
  byte_queue from_string("ab\0c"s);
  byte_queue from_literal("abc");
  EXPECT_EQ(from_string, "ab\0c"s);
  EXPECT_EQ(from_literal, "abc");
  from_string = "x\0"s;
  from_literal = "xyz";
  EXPECT_EQ(from_string, "x\0"s);
  EXPECT_EQ(from_literal, "xyz");
  from_literal = "";
  EXPECT_TRUE(from_literal.empty());
}

TEST(byte_queue, assignment_replaces_what_is_left_of_a_longer_content) {
  byte_queue q(stream(300000));
  consume(q, 1000);
  q = "short";
  EXPECT_EQ(q.size(), 5u);
  EXPECT_EQ(q, "short");
}

TEST(byte_queue, is_assigned_its_own_text) {
  byte_queue q(stream(70000));
  consume(q, 7);
  q = q.str();
  EXPECT_EQ(q, stream(69993, 7));
}

TEST(byte_queue, every_way_to_append_appends) {
  byte_queue q;
  q.append("ab", 1).append("b"s).append("c\0"s);
  (q += "d"s) += "e";
  EXPECT_EQ(q, "abc\0de"s);
  EXPECT_EQ(q.size(), 6u);
  EXPECT_EQ(q.length(), 6u);
}

TEST(byte_queue, appending_nothing_changes_nothing) {
  byte_queue q;
  q.append("", 0);
  q += "";
  EXPECT_TRUE(q.empty());
  q += "x";
  q.append("", 0);
  EXPECT_EQ(q, "x");
}

TEST(byte_queue, copies_what_is_appended_and_reads_no_further) {
  byte_queue q;
  for (size_t len : lengths) {
    auto bytes = exact_copy(stream(len));
    q = "";
    q.append(bytes.get(), len);
    std::fill_n(bytes.get(), len, '!');
    EXPECT_EQ(q, stream(len)) << len;
  }
}

TEST(byte_queue, compares_by_content_with_strings_and_literals) {
  byte_queue a("xabc");
  consume(a, 1);
  EXPECT_TRUE(a == "abc"s && "abc"s == a && a == "abc" && "abc" == a);
  EXPECT_TRUE(a != "abd"s && "abd"s != a && a != "abd" && "abd" != a);
  EXPECT_FALSE(a != "abc"s || "abc"s != a || a != "abc" || "abc" != a);
  EXPECT_FALSE(a == "ab"s || "ab"s == a || a == "abcd" || "abcd" == a);
}

TEST(byte_queue, converts_to_a_string_that_is_a_copy) {
  byte_queue q("abc");
  std::string s = q;
  q += "d";
  EXPECT_EQ(s, "abc");
  EXPECT_EQ(q.str(), "abcd");
}

TEST(byte_queue, consumes_from_the_front_what_is_there_and_no_more) {
  byte_queue q("abcdef");
  EXPECT_EQ(consume(q, 0), "");
  EXPECT_EQ(consume(q, 2), "ab");
  EXPECT_EQ(q, "cdef");
  EXPECT_EQ(q.size(), 4u);
  EXPECT_EQ(consume(q, 100), "cdef");
  EXPECT_TRUE(q.empty());
  EXPECT_EQ(consume(q, 1), "");
}

TEST(byte_queue, content_is_the_same_however_it_is_cut) {
  for (size_t in : lengths) {
    for (size_t out : lengths) {
      if (in == 0 || out == 0) continue;
      const size_t total = std::max({in, out, size_t{1000}}) + 1;
      byte_queue q;
      for (size_t at = 0; at < total; at += in) q += stream(std::min(in, total - at), at);
      ASSERT_EQ(q.size(), total);
      std::string got;
      while (!q.empty()) got += consume(q, out);
      ASSERT_EQ(got, stream(total)) << in << " bytes in, " << out << " bytes out";
    }
  }
}

TEST(byte_queue, is_as_good_as_new_after_clear) {
  byte_queue q;
  for (size_t len : lengths) {
    q += stream(len);
    consume(q, len / 3);
    q.clear();
    EXPECT_TRUE(q.empty());
    EXPECT_EQ(q, "");
    EXPECT_EQ(consume(q, 1), "");
    q += "xyz";
    EXPECT_EQ(q, "xyz");
    drain(q, 2);
  }
}

TEST(byte_queue, behaves_like_a_string_over_a_long_run) {
  byte_queue q;
  std::string model;
  size_t position = 0;
  std::mt19937 random(512);
  for (int step = 1; step <= 6000; step++) {
    const size_t len = lengths[random() % std::size(lengths)];
    const auto action = random() % 100;
    if (action < 48 && model.size() < mib) {
      std::string bytes = stream(len, position);
      position += len;
      q += bytes;
      model += bytes;
    } else if (action < 98) {
      ASSERT_EQ(consume(q, len), model.substr(0, len)) << "step " << step;
      model.erase(0, len);
    } else if (action < 99) {
      q.clear();
      model.clear();
    } else {
      q = model = stream(len, position);
    }
    ASSERT_EQ(q.size(), model.size());
    ASSERT_EQ(q.empty(), model.empty());
    ASSERT_TRUE(step % 8 != 0 || q.str() == model) << "step " << step;
  }
}

TEST(byte_queue, drained_queue_gives_its_storage_back) {
  const size_t before = bytes_in_use();
  byte_queue q(stream(64 * mib));
  EXPECT_GE(bytes_in_use(), 64 * mib);
  drain(q);
  EXPECT_LE(bytes_in_use(), before + kept_by_all + kept_by_a_queue);
}

TEST(byte_queue, cleared_or_assigned_queue_gives_its_storage_back) {
  const size_t before = bytes_in_use();
  byte_queue q(stream(16 * mib));
  q.clear();
  EXPECT_LE(bytes_in_use(), before + kept_by_all + kept_by_a_queue);
  q = stream(16 * mib);
  q = "x";
  EXPECT_LE(bytes_in_use(), before + kept_by_all + kept_by_a_queue);
}

TEST(byte_queue, storage_goes_back_while_the_queue_drains) {
  const size_t before = bytes_in_use();
  byte_queue q(stream(32 * mib));
  for (size_t done = 0; done < 31 * mib; done += 16 * kib) consume(q, 16 * kib);
  EXPECT_EQ(q.size(), mib);
  EXPECT_LE(bytes_in_use(), before + 2 * mib + kept_by_all);
}

TEST(byte_queue, many_drained_queues_keep_little_each) {
  std::vector<byte_queue> queues(500);
  const size_t before = bytes_in_use();
  for (size_t len : {3000u, 5000u, 60000u, 70000u}) {
    for (auto& q : queues) q += stream(len);
    for (auto& q : queues) drain(q);
    EXPECT_LE(bytes_in_use(), before + kept_by_all + queues.size() * (kept_by_a_queue + 64)) << len;
  }
}

TEST(byte_queue, queue_that_never_runs_empty_does_not_grow) {
  byte_queue q("x");
  consume(q, 0);
  const size_t before = bytes_in_use();
  const std::string bytes = stream(1000);
  for (int i = 0; i < 50000; i++) {
    q += bytes;
    consume(q, 1000);
  }
  EXPECT_EQ(q.size(), 1u);
  EXPECT_LE(bytes_in_use(), before + kept_by_all);
}

TEST(byte_queue, bytes_appended_one_by_one_take_at_most_twice_their_room) {
  const size_t before = bytes_in_use();
  byte_queue q;
  for (size_t i = 0; i < 4 * mib; i++) q.append("x", 1);
  EXPECT_EQ(q.size(), 4 * mib);
  EXPECT_LE(bytes_in_use(), before + 8 * mib);
}

TEST(byte_queue, destructor_frees_everything) {
  const size_t before = bytes_in_use();
  for (int i = 0; i < 10; i++) byte_queue q(stream(8 * mib));
  EXPECT_LE(bytes_in_use(), before + kept_by_all);
}

TEST(byte_queue, emptied_queue_keeps_its_block_for_the_next_message) {
  for (size_t len : {size_t{1}, 512 - header, 4 * kib - header}) {
    byte_queue q(stream(len));
    const size_t filled = bytes_in_use();
    for (int i = 0; i < 3; i++) {
      drain(q);
      EXPECT_EQ(bytes_in_use(), filled) << len;
      q.append(stream(len).data(), len);
      EXPECT_EQ(bytes_in_use(), filled) << len;
    }
    q.clear();
    EXPECT_EQ(bytes_in_use(), filled) << len;
  }
}

TEST_F(byte_queue_without_spares, emptied_queue_keeps_no_block_of_more_than_4_kib) {
  for (size_t len : {4 * kib - header + 1, 8 * kib, full_block - header - 1}) {
    const std::string bytes = stream(len);
    const size_t before = bytes_in_use();
    byte_queue q(bytes);
    EXPECT_GE(bytes_in_use(), before + len);
    drain(q, len);
    EXPECT_LE(bytes_in_use(), before + rounding) << len;
    q = bytes;
    q.clear();
    EXPECT_LE(bytes_in_use(), before + rounding) << len;
  }
}

TEST_F(byte_queue_without_spares, blocks_grow_with_the_queue_from_512_bytes_to_64_kib) {
  byte_queue q;
  size_t last = bytes_in_use(), previous = 0;
  for (size_t size = 1; size <= mib; size++) {
    q.append("x", 1);
    const size_t block = bytes_in_use() - last;
    last += block;
    if (block == 0) continue;
    const size_t expected = std::clamp(size, size_t{512}, full_block);
    ASSERT_GE(block, expected) << size << " bytes in the queue";
    ASSERT_LE(block, expected + rounding) << size << " bytes in the queue";
    previous = block;
  }
  EXPECT_GE(previous, full_block);
}

TEST_F(byte_queue_without_spares, message_of_up_to_64_kib_stands_in_one_block) {
  for (size_t len : {size_t{512}, size_t{1000}, 4 * kib, 30 * kib, full_block - header}) {
    const std::string bytes = stream(len);
    const size_t before = bytes_in_use();
    byte_queue q;
    q.append(bytes.data(), len);
    EXPECT_LE(bytes_in_use(), before + len + header + rounding) << len;
  }
}

// If the queue moved its rest at each step, it would copy 16 TB here, and the test would not end.
TEST(byte_queue, long_queue_drains_in_small_steps) {
  constexpr size_t length = 64 * mib, step = 128;
  byte_queue q;
  for (size_t n = 0; n < length; n += mib) q.append(std::string(mib, static_cast<char>(n / mib)));
  char buf[step];
  size_t wrong = 0;
  for (size_t n = 0; n < length; n += step) {
    wrong += q.consume(buf, step) != step;
    wrong += buf[0] != static_cast<char>(n / mib) || buf[step - 1] != buf[0];
  }
  EXPECT_EQ(wrong, 0U);
  EXPECT_TRUE(q.empty());
}
