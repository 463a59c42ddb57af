// From the head to the end of a request: the body, the limit, the counters and the default hooks.

#include <gtest/gtest.h>

#include <climits>
#include <memory>

#include "tests/http/delivery.h"
#include "tests/http/recorder.h"
#include "tests/net/child.h"
#include "tests/support/console.h"

namespace {

using events = std::vector<std::string>;

const std::string get_1_0 = "GET / HTTP/1.0\r\n\r\n";
const std::string get_1_1 = "GET / HTTP/1.1\r\n\r\n";

std::string post(int content_length) {
  return "POST / HTTP/1.1\r\nContent-Length: " + std::to_string(content_length) + "\r\n\r\n";
}

class http_request_body : public testing::Test {
 protected:
  recorder& c() { return *connection_; }
  void receive_chunks(const chunks& all) { receive_all(c(), all); }

  console console_;

 private:
  std::unique_ptr<recorder> connection_ = std::make_unique<recorder>();
};

}  // namespace

TEST_F(http_request_body, in_the_chunk_of_its_head_is_delivered_in_one_call) {
  receive(c(), post(5) + "hello");
  EXPECT_EQ(c().events, (events{"headers", "data hello", "request"}));
}

TEST_F(http_request_body, does_not_enlarge_the_memory_of_the_head) {
  const std::string body(900000, 'b');
  receive(c(), post(900000) + body);
  EXPECT_EQ(c().body, body);
  EXPECT_LT(c().head.capacity(), 70000U);
}

TEST_F(http_request_body, long_one_gives_its_memory_back_for_the_next_request) {
  receive_chunks({post(300000), std::string(300000, 'b')});
  EXPECT_EQ(c().times("request"), 1);
  EXPECT_LT(c().content.capacity(), 70000U);
}

TEST_F(http_request_body, is_delivered_chunk_by_chunk_until_the_announced_length_is_there) {
  receive(c(), post(5) + "hel");
  EXPECT_EQ(c().events, (events{"headers", "data hel"}));
  EXPECT_EQ(c().content_received, 3);
  receive(c(), "lo");
  EXPECT_EQ(c().events, (events{"headers", "data hel", "data lo", "request"}));
}

TEST_F(http_request_body, is_counted_before_it_is_delivered) {
  struct : http_connection {
    std::vector<int32_t> seen;
    void on_headers() override {}
    void on_data(char*, int) override {
      seen.push_back(request_length);
      seen.push_back(content_received);
    }
  } counting;
  receive_all(counting, {post(5) + "hel", "lo"});
  const auto head = static_cast<int32_t>(post(5).size());
  EXPECT_EQ(counting.seen, (std::vector<int32_t>{head + 3, 3, head + 5, 5}));
}

TEST_F(http_request_body, of_no_bytes_is_not_delivered) {
  receive(c(), get_1_1);
  EXPECT_EQ(c().events, (events{"headers", "request"}));
}

TEST_F(http_request_body, includes_the_bytes_pipelined_after_it_and_reset_discards_them) {
  receive(c(), get_1_1 + get_1_1 + "GET");
  EXPECT_EQ(c().events, (events{"headers", "data " + get_1_1 + "GET", "request"}));
  EXPECT_EQ(c().head + c().content, "");
  receive(c(), post(2) + "hello");
  EXPECT_EQ(events(c().events.begin() + 3, c().events.end()), (events{"headers", "data hello", "request"}));
  EXPECT_NE(c().at_request.find("content \"hello\""), std::string::npos);
}

TEST_F(http_request_body, may_contain_zero_bytes_and_empty_lines) {
  const std::string body("\0\r\n\r\n\xFF", 6);
  receive_chunks({post(6) + body.substr(0, 1), body.substr(1)});
  EXPECT_EQ(c().body, body);
  EXPECT_EQ(c().times("request"), 1);
}

TEST_F(http_request_body, that_is_late_on_a_closing_connection_completes_the_request_with_each_chunk) {
  receive_chunks({get_1_0, "x", "", "yz"});
  EXPECT_EQ(c().events,
            (events{"headers", "request", "data x", "request", "data ", "request", "data yz", "request"}));
  EXPECT_EQ(c().content, "xyz");
  EXPECT_EQ(c().head, "GET / HTTP/1.0\r\n");
  EXPECT_EQ(c().content_received, 3);
  EXPECT_EQ(c().request_length, static_cast<int32_t>(get_1_0.size() + 3));
}

TEST_F(http_request_body, chunk_of_no_bytes_changes_nothing_before_the_head_is_complete) {
  receive_chunks({"", "GET / HTTP/1.1\r\n", ""});
  c().on_recv(nullptr, 0);
  EXPECT_TRUE(c().events.empty());
  EXPECT_EQ(c().head, "GET / HTTP/1.1\r\n");
  EXPECT_EQ(c().request_length, 16);
}

TEST_F(http_request_body, chunk_of_negative_length_before_the_end_of_the_head_only_lowers_the_count) {
  receive(c(), "GET / HTTP/1.1\r\n\r");
  char bytes[] = "\n";
  c().on_recv(bytes, -2);
  EXPECT_TRUE(c().events.empty());
  EXPECT_EQ(c().head, "GET / HTTP/1.1\r\n\r");
  EXPECT_EQ(c().request_length, 15);
}

TEST_F(http_request_body, chunk_of_no_bytes_after_the_head_reaches_on_data) {
  receive_chunks({post(1), "", "x"});
  EXPECT_EQ(c().events, (events{"headers", "data ", "data x", "request"}));
}

TEST_F(http_request_body, kept_connection_serves_one_request_after_another) {
  receive_chunks({get_1_1, post(1) + "x", get_1_0});
  EXPECT_EQ(c().events, (events{"headers", "request", "headers", "data x", "request", "headers", "request"}));
  EXPECT_FALSE(c().keep_alive);
  EXPECT_TRUE(c().headers_received) << "without keep_alive there is no reset()";
}

TEST_F(http_request_body, keep_alive_cleared_by_the_handler_prevents_the_reset) {
  struct closing : recorder {
    void on_request() override {
      recorder::on_request();
      keep_alive = false;
    }
  };
  auto closing_connection = std::make_unique<closing>();
  receive(*closing_connection, get_1_1);
  EXPECT_EQ(all_fields(*closing_connection), [&] {
    std::string fields = closing_connection->at_request;
    return fields.replace(fields.find("keep_alive 1"), 12, "keep_alive 0");
  }());
}

TEST_F(http_request_body, reset_by_a_hook_before_the_end_leaves_the_request_incomplete) {
  struct resetting : recorder {
    void on_headers() override {
      recorder::on_headers();
      reset();
    }
  };
  auto resetting_connection = std::make_unique<resetting>();
  receive(*resetting_connection, get_1_1);
  EXPECT_EQ(resetting_connection->events, events{"headers"});
}

TEST_F(http_request_body, over_the_limit_is_dropped_with_a_line_for_each_chunk) {
  c().max_request_length = 40;
  receive_chunks({post(30), "x"});  // 39 + 1 bytes: exactly the limit
  ASSERT_EQ(c().request_length, 40 + static_cast<int32_t>(post(30).size()) - 39);
  c().max_request_length = c().request_length;
  receive(c(), "0123456789");  // one chunk may exceed the limit
  EXPECT_EQ(console_.text(), "");
  const std::string before = all_fields(c());
  const events events_before = c().events;
  for (const char* chunk : {"y", "", "0123456789012345678901234567890"}) receive(c(), chunk);
  const std::string line =
      "Warning! Request exceeds max length of " + std::to_string(c().max_request_length) + ".\n";
  EXPECT_EQ(console_.text(), line + line + line);
  EXPECT_EQ(all_fields(c()), before);
  EXPECT_EQ(c().events, events_before);
}

TEST_F(http_request_body, head_over_the_limit_is_dropped_and_never_completed) {
  c().max_request_length = 10;
  receive_chunks({"0123456789", "a", "\r\n\r\n", "b"});
  EXPECT_EQ(console_.text(),
            "Warning! Request exceeds max length of 10.\nWarning! Request exceeds max length of 10.\n");
  EXPECT_EQ(c().head, "0123456789a");
  EXPECT_EQ(c().request_length, 11);
  EXPECT_TRUE(c().events.empty());
  EXPECT_TRUE(c().keep_alive);
  EXPECT_EQ(send_once(c()).stays, true);
}

TEST_F(http_request_body, after_an_empty_line_at_the_very_start_grows_up_to_the_limit) {
  c().max_request_length = 10;
  receive_chunks({"\r\n\r\n", "abcdef", "g", "h"});
  EXPECT_EQ(c().head, "\r\n\r\nabcdefg");
  EXPECT_EQ(console_.text(), "Warning! Request exceeds max length of 10.\n");
}

TEST_F(http_request_body, limit_of_zero_or_less_means_no_limit) {
  for (int32_t limit : {0, -1, INT_MIN}) {
    c().keep_alive = true;
    c().reset();
    c().events.clear();
    c().max_request_length = limit;
    c().request_length = 104857601;
    receive(c(), get_1_1);
    EXPECT_EQ(c().times("request"), 1) << limit;
  }
  EXPECT_EQ(console_.text(), "");
}

TEST_F(http_request_body, limit_is_100_mib_again_for_each_request_whatever_was_set) {
  c().max_request_length = 50;
  receive(c(), get_1_1);
  EXPECT_EQ(c().max_request_length, 104857600);

  struct : http_connection {
    int64_t taken = 0;
    void on_headers() override {}
    void on_data(char*, int len) override { taken += len; }
  } big;
  receive(big, "POST / HTTP/1.1\r\nContent-Length: 2000000000\r\n\r\n");
  const std::string chunk(megabyte, 'x');
  for (int i = 0; i < 102; i++) receive(big, chunk);
  // With the head, chunk 100 exceeds the limit. Chunk 101 is the first to be dropped.
  EXPECT_EQ(big.taken, 100 * int64_t{megabyte});
  const std::string line = "Warning! Request exceeds max length of 104857600.\n";
  EXPECT_EQ(console_.text(), line + line);
}

// The address and undefined-behaviour sanitizers end the test if a sum overflows.
TEST_F(http_request_body, counters_wrap) {
  c().max_request_length = 0;
  c().request_length = INT_MAX - 1;
  receive(c(), post(5));
  EXPECT_EQ(c().request_length, static_cast<int32_t>(INT_MIN + static_cast<int>(post(5).size()) - 2));
  c().content_received = INT_MAX;
  receive(c(), "xyz");
  EXPECT_EQ(c().content_received, INT_MIN + 2);
  EXPECT_EQ(c().times("request"), 0) << "a negative count is less than any length announced";
}

TEST_F(http_request_body, negative_length_completes_the_request_at_once) {
  receive(c(), post(-1));
  EXPECT_EQ(c().events, (events{"headers", "request"}));
}

TEST_F(http_request_body, default_on_headers_prints_the_description_with_the_agent) {
  auto plain = std::make_unique<http_connection>();
  plain->ip = 0x0700000A;  // 10.0.0.7 in the order of the bytes in memory
  plain->port = 51234;
  receive(*plain, "GET /index.html?a=1 HTTP/1.1\r\nUser-Agent: curl/8.0\r\n\r\n");
  EXPECT_EQ(console_.text(), "10.0.0.7:51234 GET /index.html?a=1 HTTP/1.1 [curl/8.0]\n");
}

TEST_F(http_request_body, default_on_headers_stops_at_a_zero_byte_and_prints_percent_signs_as_they_are) {
  using namespace std::string_literals;
  auto plain = std::make_unique<http_connection>();
  receive(*plain, "GET /%s%d%% HTTP/1.1\r\nUser-Agent: a%xb\0c\r\n\r\n"s);
  EXPECT_EQ(console_.text(), "0.0.0.0:0 GET /%s%d%% HTTP/1.1 [a%xb\n");
}

TEST_F(http_request_body, default_on_data_appends_to_the_content) {
  auto plain = std::make_unique<http_connection>();
  char bytes[] = "ab\0d";
  plain->on_data(bytes, 4);
  plain->on_data(bytes, 0);
  plain->on_data(bytes, -1);
  plain->on_data(bytes, 1);
  EXPECT_EQ(plain->content, std::string("ab\0da", 5));
  EXPECT_EQ(plain->content_received, 0) << "on_recv counts";
}

TEST_F(http_request_body, lines_on_the_console_are_not_flushed) {
  EXPECT_TRUE(prints_without_flush([&] {
    auto plain = std::make_unique<http_connection>();
    plain->keep_alive = false;
    receive(*plain, "G / V\r\n\r\n");
    plain->max_request_length = 1;
    receive(*plain, "x");
  }));
  EXPECT_EQ(console_.text(), "0.0.0.0:0 G / V []\nWarning! Request exceeds max length of 1.\n");
}
