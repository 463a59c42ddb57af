// What stays in memory after long requests, and after bodies that nobody reads.

#include "tests/base/heap.h"
#include "tests/proxy/proxy_fixtures.h"

namespace {

constexpr size_t mebibyte = 1 << 20;

const std::string long_text(8 * mebibyte, 'x');

struct kept_memory : proxy_object<reverse_proxy> {
  kept_memory() { map("on", upstream.port()); }

  // Delivers the request to a connection, which then ends with its upstream. Returns how much more memory is
  // in use afterwards. What is kept in any case is allocated first: the blocks of queues, and what a short
  // request needs.
  int64_t kept_after(const std::string& request) {
    { base::byte_queue long_queue(long_text); }
    serve(request_to("on"));
    const auto before = static_cast<int64_t>(bytes_in_use());
    serve(request);
    return static_cast<int64_t>(bytes_in_use()) - before;
  }

  void expect_little_kept_after(const std::string& request) {
    EXPECT_LT(kept_after(request), static_cast<int64_t>(mebibyte));
  }

 private:
  void serve(const std::string& request) {
    receive(request);
    start_over();
    out.clear();
  }
};

}  // namespace

TEST_F(kept_memory, long_host_leaves_nothing) {
  expect_little_kept_after(request_to(long_text));
}

TEST_F(kept_memory, long_line_on_the_console_leaves_nothing) {
  expect_little_kept_after(request_to("unknown", "/" + long_text));
}

TEST_F(kept_memory, long_head_that_is_passed_on_leaves_nothing) {
  expect_little_kept_after(request_to("on", "/", "X: " + long_text + "\r\n"));
}

TEST_F(kept_memory, body_that_nobody_takes_is_gone_after_each_turn) {
  for (const char* line : {"Content-Length: 100000000\r\n", "Transfer-Encoding: chunked\r\n"}) {
    receive(request_to("unknown", "/", line));
    if (*line == 'T') receive("5f5e100\r\n");
    ask(*proxy);
    { base::byte_queue long_queue(long_text); }
    const auto before = static_cast<int64_t>(bytes_in_use());
    for (int i = 0; i < 64; i++) {
      receive(long_text.substr(0, mebibyte));
      EXPECT_LE(proxy->pipe->to_upstream.size(), mebibyte);
      EXPECT_TRUE(ask(*proxy).stays_open);
      EXPECT_EQ(proxy->pipe->to_upstream.size(), 0u);
    }
    EXPECT_LT(static_cast<int64_t>(bytes_in_use()) - before, static_cast<int64_t>(mebibyte));
    start_over();
  }
}
