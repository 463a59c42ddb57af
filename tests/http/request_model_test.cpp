// The parser against an independent model of it, over random input in random chunks.

#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <tuple>

#include "tests/http/delivery.h"
#include "tests/http/recorder.h"
#include "tests/http/request_model.h"
#include "tests/support/console.h"

namespace {

class random_input {
 public:
  explicit random_input(unsigned seed) : generator_(seed) {}

  int up_to(int most) { return std::uniform_int_distribution<int>(0, most)(generator_); }
  bool one_in(int n) { return up_to(n - 1) == 0; }

  template <size_t N>
  std::string any_of(const char* const (&choices)[N]) {
    return choices[up_to(static_cast<int>(N) - 1)];
  }

  // Pieces of requests in no sensible order.
  std::string soup() {
    static const char* const pieces[] = {" ",
                                         " ",
                                         "\r\n",
                                         "\r\n",
                                         "\r\n\r\n",
                                         "\r",
                                         "\n",
                                         "?",
                                         "*",
                                         ":",
                                         "GET",
                                         "/a",
                                         "HTTP/1.0",
                                         "HTTP/1.1",
                                         "Host: x",
                                         "connection: Keep-Alive",
                                         "content-length: 2",
                                         "Cookie: c",
                                         "Upgrade: websocket",
                                         "x"};
    std::string bytes;
    for (int n = up_to(20); n >= 0; n--) bytes += one_in(30) ? std::string(1, '\0') : any_of(pieces);
    return bytes;
  }

  // A request that may be well formed, with a body that may be as long as announced.
  std::string request() {
    static const char* const methods[] = {"GET", "POST", "HEAD", "", "get"};
    static const char* const targets[] = {"/", "/a?b=c", "?x", "/a?b?c", "", "*", "http://h/p?q", "/?"};
    static const char* const versions[] = {"HTTP/1.1", "HTTP/1.0", "HTTP/1.0", "HTTP/1.0 ", "", "1.0"};
    static const char* const lines[] = {"Host: h\r\n",
                                        "host:h\r\n",
                                        "Connection: Keep-Alive\r\n",
                                        "connection: keep-alive\r\n",
                                        "Connection: close\r\n",
                                        "CONTENT-LENGTH: 3\r\n",
                                        "Content-Length: 11\r\n",
                                        "content-length:9\r\n",
                                        "Content-Length: -4\r\n",
                                        "Content-Length: 4294967297\r\n",
                                        "Content-Length-Hint: 5\r\n",
                                        "Cookie: a=b\r\n",
                                        "cookies:none\r\n",
                                        "Upgrade: websocket\r\n",
                                        "Upgrade: h2c\r\n",
                                        "Sec-WebSocket-Key: abc\r\n",
                                        "sec-websocket-version: 13\r\n",
                                        "Sec-WebSocket-Version: 8\r\n",
                                        "A\r\n"};
    std::string bytes = any_of(methods) + " " + any_of(targets) + " " + any_of(versions) + "\r\n";
    for (int n = up_to(7); n > 0; n--) bytes += any_of(lines);
    bytes += "\r\n" + std::string(static_cast<size_t>(up_to(14)), 'b');
    for (int n = one_in(2) ? up_to(4) : 0; n > 0; n--) spoil(bytes);
    return bytes;
  }

  chunks cut(const std::string& bytes) {
    chunks all;
    const int most = one_in(3) ? 1 : one_in(2) ? 8 : 200;
    for (size_t at = 0; at < bytes.size();) {
      const auto n = static_cast<size_t>(up_to(most));
      all.push_back(bytes.substr(at, n));
      at += n;
    }
    return all;
  }

 private:
  void spoil(std::string& bytes) {
    static const char odd[] = {' ', '\r', '\n', '?', '\0', 'z'};
    const auto at = static_cast<size_t>(up_to(static_cast<int>(bytes.size()) - 1));
    switch (up_to(2)) {
      case 0:
        bytes.erase(at, 1);
        break;
      case 1:
        bytes.insert(at, 1, odd[up_to(5)]);
        break;
      default:
        bytes[at] = odd[up_to(5)];
    }
    if (bytes.empty()) bytes = " ";
  }

  std::mt19937 generator_;
};

// The fields in which the two must not differ.
template <class C>
auto comparable(const C& c) {
  return std::tie(c.head, c.content, c.method, c.target, c.version, c.path, c.query, c.cookie,
                  c.headers_received, c.keep_alive, c.upgraded);
}

template <class C>
std::vector<int64_t> counters(const C& c) {
  return {c.max_request_length, c.request_length, c.content_received, c.content_length};
}

void compare_with_model(random_input& random, const chunks& input, console& screen) {
  screen.clear();
  auto c = std::make_unique<recorder>();
  request_model model;
  c->websocket_enabled = model.websocket_enabled = random.one_in(2);
  if (random.one_in(4)) model.max_request_length = c->max_request_length = random.up_to(120);
  for (size_t i = 0; i < input.size(); i++) {
    receive(*c, input[i]);
    model.receive(input[i]);
    const bool same = comparable(*c) == comparable(model) && counters(*c) == counters(model);
    ASSERT_TRUE(same) << "after chunk " << i << " of " << testing::PrintToString(input) << "\n"
                      << all_fields(*c);
  }
  ASSERT_EQ(c->events, model.events) << testing::PrintToString(input);
  ASSERT_EQ(screen.text(), model.printed) << testing::PrintToString(input);
}

}  // namespace

TEST(http_request_model, agrees_on_random_requests_in_random_chunks) {
  console screen;
  random_input random(1);
  for (int i = 0; i < 3000 && !HasFatalFailure(); i++) {
    std::string bytes = random.request();
    if (random.one_in(3)) bytes += random.request();
    compare_with_model(random, random.cut(bytes), screen);
  }
}

TEST(http_request_model, agrees_on_pieces_of_requests_in_any_order) {
  console screen;
  random_input random(2);
  for (int i = 0; i < 3000 && !HasFatalFailure(); i++)
    compare_with_model(random, random.cut(random.soup()), screen);
}

TEST(http_request_model, agrees_on_header_look_up_in_random_text) {
  random_input random(3);
  static const char* const names[] = {"a", "A", "ab", "bA", "aB-c", ":", "a\r\nb", ""};
  static const char* const pieces[] = {"a", "B",  "b",  "c",    "-",    ":",
                                       " ", "\r", "\n", "\r\n", "\r\n", "\r\r\n"};
  for (int i = 0; i < 20000; i++) {
    std::string text;
    for (int n = random.up_to(12); n > 0; n--) text += random.any_of(pieces);
    text += "xx";  // so that even a name at the end has two bytes after it
    const std::string name = random.any_of(names);
    EXPECT_EQ(http_connection::get_header(name, text), request_model::header(name, text))
        << testing::PrintToString(text);
  }
}
