// Memory is refused while a connection subscribes to a channel or queues a file.

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <new>
#include <string>
#include <utility>

#include "http/http_connection.h"
#include "tests/support/operator_new.h"

// The linker replaces the C library's function by this one, in our own code only.
extern "C" {

void* __real_realloc(void* memory, size_t size);

void* __wrap_realloc(void* memory, size_t size) {
  return new_is_refused() ? nullptr : __real_realloc(memory, size);
}

}  // extern "C"

namespace {

/* Calls `work` while the first `granted` allocations succeed and the next one is refused. Returns whether it
 * has thrown std::bad_alloc. */
template <class F>
bool is_refused(int granted, F work) {
  new_faults() = {true, 0, granted, 1};
  bool has_thrown = false;
  try {
    work();
  } catch (const std::bad_alloc&) {
    has_thrown = true;
  }
  new_faults() = {};
  return has_thrown;
}

std::unique_ptr<http_connection> upgraded() {
  auto c = std::make_unique<http_connection>();
  c->upgraded = true;
  return c;
}

}  // namespace

TEST(refused_memory, connection_that_cannot_subscribe_is_in_no_channel_and_can_try_again) {
  int granted = 0;
  for (bool has_thrown = true; has_thrown && granted < 100; granted++) {
    auto c = upgraded();
    has_thrown = is_refused(granted, [&] { c->subscribe("news"); });
    if (!has_thrown) continue;
    EXPECT_EQ(http_connection::channels().count, 0u) << granted;
    EXPECT_EQ(c->subscriptions.count, 0u) << granted;
    c->subscribe("news");
    ASSERT_TRUE(http_connection::channels().get("news")) << granted;
    EXPECT_EQ(http_connection::channels().get("news")->count, 1u) << granted;
  }
  EXPECT_GT(granted, 1) << "nothing was refused";
  EXPECT_EQ(http_connection::channels().count, 0u);
}

TEST(refused_memory, connection_that_cannot_subscribe_leaves_the_other_members_in_the_channel) {
  auto member = upgraded();
  member->subscribe("news");
  int granted = 0;
  for (bool has_thrown = true; has_thrown && granted < 100; granted++) {
    auto c = upgraded();
    has_thrown = is_refused(granted, [&] { c->subscribe("news"); });
    const auto* members = http_connection::channels().get("news");
    ASSERT_TRUE(members) << granted;
    EXPECT_EQ(members->count, has_thrown ? 1u : 2u) << granted;
    EXPECT_EQ(members->data[0], member.get()) << granted;
    EXPECT_EQ(c->subscriptions.count, has_thrown ? 0u : 1u) << granted;
  }
  EXPECT_GT(granted, 1) << "nothing was refused";
}

TEST(refused_memory, file_that_cannot_be_queued_is_closed) {
  int granted = 0;
  for (bool has_thrown = true; has_thrown && granted < 100; granted++) {
    auto c = std::make_unique<http_connection>();
    std::string head = "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\n";
    FILE* file = tmpfile();  // closed by write_file(), or by the destructor
    ASSERT_TRUE(file);
    const int descriptor = fileno(file);
    has_thrown = is_refused(granted, [&] { c->write_file(std::move(head), file, 1); });
    EXPECT_EQ(fcntl(descriptor, F_GETFD) == -1, has_thrown) << granted;
  }
  EXPECT_GT(granted, 1) << "nothing was refused";
}
