// From the bytes of a request's head to the fields, and to the decisions that follow from them.

#include <gtest/gtest.h>

#include <memory>

#include "tests/http/delivery.h"
#include "tests/http/recorder.h"

namespace {

// A fresh connection that got `bytes` in one way of delivery.
std::unique_ptr<recorder> after(const chunks& delivery) {
  auto c = std::make_unique<recorder>();
  receive_all(*c, delivery);
  return c;
}

}  // namespace

TEST(http_request, is_the_same_however_its_bytes_are_cut) {
  const std::string request =
      "POST /a/b?c=d HTTP/1.1\r\nHost: x\r\nCookie: k=v\r\ncontent-length: 5\r\n\r\n\r\n\r\nq";
  for (const chunks& delivery : every_delivery(request)) {
    auto c = after(delivery);
    EXPECT_EQ(c->times("headers"), 1);
    EXPECT_EQ(c->times("request"), 1);
    EXPECT_EQ(c->events.front(), "headers");
    EXPECT_EQ(c->events.back(), "request");
    EXPECT_EQ(c->body, "\r\n\r\nq");
    EXPECT_EQ(c->at_headers, "{ \"POST\", \"/a/b?c=d\", \"HTTP/1.1\", \"/a/b\", \"c=d\", \"k=v\" }");

    auto expected = std::make_unique<recorder>();
    expected->headers_received = true;
    expected->head = "POST /a/b?c=d HTTP/1.1\r\nHost: x\r\nCookie: k=v\r\ncontent-length: 5\r\n";
    expected->request_length = static_cast<int32_t>(request.size());
    expected->content_received = expected->content_length = 5;
    expected->content = "\r\n\r\nq";
    expected->method = "POST";
    expected->target = "/a/b?c=d";
    expected->version = "HTTP/1.1";
    expected->path = "/a/b";
    expected->query = "c=d";
    expected->cookie = "k=v";
    EXPECT_EQ(c->at_request, all_fields(*expected));
    EXPECT_EQ(all_fields(*c), all_fields(*std::make_unique<recorder>())) << "reset() follows";
  }
}

TEST(http_request, head_is_parsed_when_the_chunk_that_completes_the_empty_line_arrives) {
  const std::string head = "GET / HTTP/1.1\r\nHost: a\r\n\r\n";
  auto c = std::make_unique<recorder>();
  for (size_t i = 0; i + 1 < head.size(); i++) {
    receive(*c, head.substr(i, 1));
    EXPECT_TRUE(c->events.empty()) << "after byte " << i;
    EXPECT_EQ(c->head, head.substr(0, i + 1));
    EXPECT_EQ(c->request_length, static_cast<int32_t>(i + 1));
  }
  receive(*c, "\n");
  EXPECT_EQ(c->events, (std::vector<std::string>{"headers", "request"}));
}

TEST(http_request, head_ends_at_the_first_empty_line_and_keeps_one_line_end) {
  const struct {
    std::string bytes, head, rest;
  } cases[] = {
      {"x\r\n\r\n", "x\r\n", ""},
      {"GET / HTTP/1.1\r\nA: b\r\n\r\n", "GET / HTTP/1.1\r\nA: b\r\n", ""},
      {"x\r\n\r\n\r\n", "x\r\n", "\r\n"},
      {"\r\r\n\r\n", "\r\r\n", ""},
      {"\n\n\n\r\n\r\r\n\r\ny", "\n\n\n\r\n\r\r\n", "y"},
      {"x\r\n\r\ny\r\n\r\n", "x\r\n", "y\r\n\r\n"},
  };
  for (const auto& t : cases) {
    auto c = std::make_unique<recorder>();
    c->keep_alive = false;  // no reset
    receive(*c, t.bytes);
    EXPECT_EQ(c->head, t.head);
    EXPECT_EQ(c->body, t.rest);
    EXPECT_EQ(c->content_received, static_cast<int32_t>(t.rest.size()));
    EXPECT_EQ(c->times("request"), 1);
  }
}

TEST(http_request, that_begins_with_the_empty_line_is_never_parsed) {
  const std::string bytes = "\r\n\r\nGET / HTTP/1.1\r\nHost: a\r\n\r\n\r\n\r\n";
  for (const chunks& delivery : every_delivery(bytes)) {
    auto c = after(delivery);
    EXPECT_TRUE(c->events.empty());
    EXPECT_EQ(c->head, bytes);
    EXPECT_FALSE(c->headers_received);
    EXPECT_EQ(c->request_length, static_cast<int32_t>(bytes.size()));
  }
}

// A missing blank counts as position -1. The next search then starts at the beginning of the line again.
TEST(http_request, line_is_split_at_its_first_two_blanks_wherever_they_are) {
  using namespace std::string_literals;
  const struct {
    std::string lines;
    std::vector<std::string> fields;  // method, target, version, path, query, cookie
  } cases[] = {
      {"GET /index.html?a=1 HTTP/1.1", {"GET", "/index.html?a=1", "HTTP/1.1", "/index.html", "a=1", ""}},
      {"GET / HTTP/1.1 extra", {"GET", "/", "HTTP/1.1 extra", "/", "", ""}},
      {"GET  / HTTP/1.1", {"GET", "", "/ HTTP/1.1", "", "", ""}},
      {"GET /a?b?c HTTP/1.1", {"GET", "/a?b?c", "HTTP/1.1", "/a", "b?c", ""}},
      {"GET ?a?b HTTP/1.1", {"GET", "?a?b", "HTTP/1.1", "?a?b", "", ""}},
      {"GET a? HTTP/1.1", {"GET", "a?", "HTTP/1.1", "a", "", ""}},
      {"GET / ", {"GET", "/", "", "/", "", ""}},
      {"GET /", {"GET", "", "GET /", "", "", ""}},
      {"GET", {"", "", "GET", "", "", ""}},
      {" GET / HTTP/1.1", {"", "GET", "/ HTTP/1.1", "GET", "", ""}},
      {" ", {"", "", " ", "", "", ""}},
      {"  ", {"", "", "", "", "", ""}},
      {" a", {"", "", " a", "", "", ""}},
      {"GET /x\r\nHost: a", {"GET", "/x\r\nHost:", "a", "/x\r\nHost:", "", ""}},
      {"GET\r\nHost: a", {"GET\r\nHost:", "", "GET", "", "", ""}},
      {"GET\r\nHost: a b", {"GET\r\nHost:", "a", "b", "a", "", ""}},
      {"\r\nGET / HTTP/1.1", {"\r\nGET", "/", "HTTP/1.1", "/", "", ""}},
      {"\r\nAB", {"", "", "", "", "", ""}},
      {"GET\n/ HTTP/1.1", {"GET\n/", "", "GET\n/ HTTP/1.1", "", "", ""}},
      {"GET /\0\xFF\t HTTP/1.1"s, {"GET", "/\0\xFF\t"s, "HTTP/1.1", "/\0\xFF\t"s, "", ""}},
      {"G / V\r\nCOOKIE: a=b; c ", {"G", "/", "V", "/", "", "a=b; c "}},
      {"G / V\r\nX-Cookie: a\r\nCookie-2: b", {"G", "/", "V", "/", "", ": b"}},
  };
  for (const auto& t : cases) {
    for (const chunks& delivery : every_delivery(t.lines + "\r\n\r\n"))
      EXPECT_EQ(after(delivery)->at_headers, testing::PrintToString(t.fields)) << t.lines;
  }
}

TEST(http_request, content_length_is_a_decimal_number_cut_to_32_bits) {
  using namespace std::string_literals;
  const struct {
    std::string line;
    int32_t expected;
  } cases[] = {
      {"Host: a", 0},
      {"Content-Length: 5", 5},
      {"CONTENT-LENGTH: 5", 5},
      {"content-length:  5 ", 5},
      {"content-length:\t5", 5},
      {"content-length: +5", 5},
      {"content-length: 005", 5},
      {"content-length: 5abc", 5},
      {"content-length: 1\0002"s, 1},
      {"content-length: x", 0},
      {"content-length: ", 0},
      {"content-length: 0x10", 0},
      {"content-length:75", 5},
      {"content-length: -5", -5},
      {"content-length: 2147483647", 2147483647},
      {"content-length: 2147483648", INT32_MIN},
      {"content-length: 4294967295", -1},
      {"content-length: 4294967301", 5},
      {"content-length: 99999999999999999999", -1},
      {"content-length: -99999999999999999999", 0},
      {"content-lengthXY9: 1", 9},
      {"content-length-x: 7\r\ncontent-length: 5", 0},
      {"content-length: 6\r\ncontent-length: 5", 6},
      {"x-content-length: 5", 0},
  };
  for (const auto& t : cases) {
    auto c = std::make_unique<recorder>();
    c->keep_alive = false;  // no reset
    receive(*c, "POST / HTTP/1.1\r\n" + t.line + "\r\n\r\n");
    EXPECT_EQ(c->content_length, t.expected) << t.line;
    EXPECT_EQ(c->times("request"), t.expected > 0 ? 0 : 1) << t.line;
  }
}

TEST(http_request, only_version_1_0_without_the_exact_word_keep_alive_closes) {
  const struct {
    std::string version, line;
    bool stays;
  } cases[] = {
      {"HTTP/1.0", "Host: a", false},
      {"HTTP/1.0", "Connection: Keep-Alive", true},
      {"HTTP/1.0", "CONNECTION: Keep-Alive", true},
      {"HTTP/1.0", "Connection: keep-alive", false},
      {"HTTP/1.0", "Connection: KEEP-ALIVE", false},
      {"HTTP/1.0", "Connection: Keep-Alive ", false},
      {"HTTP/1.0", "Connection:  Keep-Alive", false},
      {"HTTP/1.0", "Connection:Keep-Alive", false},
      {"HTTP/1.0", "Connection: Keep-Alive, x", false},
      {"HTTP/1.0", "Connection: close", false},
      {"HTTP/1.0", "Proxy-Connection: Keep-Alive", false},
      {"HTTP/1.1", "Host: a", true},
      {"HTTP/1.1", "Connection: close", true},
      {"http/1.0", "Connection: close", true},
      {"HTTP/1.0 ", "Connection: close", true},
      {"HTTP/1.00", "Connection: close", true},
      {"HTTP/0.9", "Connection: close", true},
      {"", "Connection: close", true},
  };
  for (const auto& t : cases) {
    const std::string request = "GET / " + t.version + "\r\n" + t.line + "\r\n\r\n";
    for (const chunks& delivery : every_delivery(request))
      EXPECT_EQ(after(delivery)->keep_alive, t.stays) << request;
  }
}

TEST(http_request, nothing_sets_keep_alive_again) {
  for (const char* version : {"HTTP/1.1", "HTTP/1.0"}) {
    auto c = std::make_unique<recorder>();
    c->keep_alive = false;
    receive(*c, std::string("GET / ") + version + "\r\nConnection: Keep-Alive\r\n\r\n");
    EXPECT_FALSE(c->keep_alive) << version;
  }
}

TEST(http_request, upgrade_is_a_plain_request_unless_enabled_and_to_exactly_websocket) {
  const struct {
    std::string line;
    bool enabled, upgrades;
  } cases[] = {
      {"Upgrade: websocket", true, true},     {"UPGRADE: websocket", true, true},
      {"Upgrade: WebSocket", true, false},    {"Upgrade: websocket ", true, false},
      {"Upgrade: websocket, x", true, false}, {"Upgrade:websocket", true, false},
      {"X-Upgrade: websocket", true, false},  {"Upgrade: websocket", false, false},
  };
  for (const auto& t : cases) {
    auto c = std::make_unique<recorder>();
    c->websocket_enabled = t.enabled;
    receive(*c, "GET / HTTP/1.1\r\n" + t.line +
                    "\r\nSec-WebSocket-Key: abc\r\nSec-WebSocket-Version: 13\r\n\r\n");
    EXPECT_EQ(c->upgraded, t.upgrades) << t.line;
    EXPECT_EQ(c->events.front(), t.upgrades ? "upgrade" : "headers") << t.line;
    EXPECT_EQ(c->websocket_enabled, t.enabled);
  }
}

TEST(http_request, on_headers_comes_before_any_byte_of_the_body_is_delivered) {
  struct : http_connection {
    std::string seen;
    void on_headers() override { seen = all_fields(*this); }
  } c;
  const std::string request = "PUT /x HTTP/1.1\r\nContent-Length: 9\r\n\r\nabc";
  receive(c, request);
  auto expected = std::make_unique<http_connection>();
  expected->headers_received = true;
  expected->head = "PUT /x HTTP/1.1\r\nContent-Length: 9\r\n";
  expected->request_length = static_cast<int32_t>(request.size());
  expected->content_received = 3;
  expected->content_length = 9;
  expected->method = "PUT";
  expected->target = expected->path = "/x";
  expected->version = "HTTP/1.1";
  EXPECT_EQ(c.seen, all_fields(*expected));
  EXPECT_EQ(c.content, "abc");
}
