// http_proxy::copy_headers, the filter that the head of a request goes through.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "proxy/http_proxy.h"

namespace {

struct filtered {
  const char* head;
  const char* lines;
};

const char request_line[] = "GET / HTTP/1.1\r\n";

// Each head gets the request line in front. It is tried with and without the empty line at its end.
void expect_copied(const std::vector<filtered>& table) {
  for (const filtered& f : table) {
    SCOPED_TRACE(f.head);
    EXPECT_EQ(http_proxy::copy_headers(std::string(request_line) + f.head), f.lines);
    EXPECT_EQ(http_proxy::copy_headers(std::string(request_line) + f.head + "\r\n"), f.lines);
  }
}

}  // namespace

TEST(copy_headers, lines_for_the_connection_itself_are_dropped_and_the_others_kept_in_order) {
  expect_copied({
      {"Host: a\r\nConnection: keep-alive\r\nProxy-Connection: x\r\nAccept: */*\r\n",
       "Host: a\r\nAccept: */*\r\n"},
      {"Connection: close\r\n", ""},
      {"Proxy-Authorization: Basic eDp5\r\nZ: 1\r\nA: 2\r\n", "Z: 1\r\nA: 2\r\n"},
      {"Host: a\r\nAccept: b\r\nProxy-Connection: x\r\n", "Host: a\r\nAccept: b\r\n"},
      {"X: 1\r\nX: 1\r\n", "X: 1\r\nX: 1\r\n"},
      {"", ""},
  });
}

TEST(copy_headers, the_names_are_prefixes) {
  expect_copied({
      {"Proxying: 1\r\nHost: a\r\n", "Host: a\r\n"},
      {"Proxy\r\nHost: a\r\n", "Host: a\r\n"},
      {"Connections: 1\r\nHost: a\r\n", "Host: a\r\n"},
      {"Connection\r\nHost: a\r\n", "Host: a\r\n"},
      {"Prox: 1\r\nConnectio: 1\r\n", "Prox: 1\r\nConnectio: 1\r\n"},
      {"X-Proxy: 1\r\nX-Connection: 1\r\n", "X-Proxy: 1\r\nX-Connection: 1\r\n"},
      {" Connection: 1\r\n Proxy: 1\r\n", " Connection: 1\r\n Proxy: 1\r\n"},
  });
}

TEST(copy_headers, letter_case_counts) {
  expect_copied({
      {"connection: close\r\n", "connection: close\r\n"},
      {"CONNECTION: close\r\n", "CONNECTION: close\r\n"},
      {"proxy-connection: x\r\n", "proxy-connection: x\r\n"},
      {"PROXY-AUTHORIZATION: x\r\n", "PROXY-AUTHORIZATION: x\r\n"},
  });
}

TEST(copy_headers, one_byte_line_hides_the_line_after_it) {
  expect_copied({
      {"a\r\nConnection: close\r\nHost: b\r\n", "a\r\nConnection: close\r\nHost: b\r\n"},
      {"a\r\nProxy-Connection: x\r\n", "a\r\nProxy-Connection: x\r\n"},
      {"Host: a\r\nb\r\nConnection: close\r\nConnection: x\r\n", "Host: a\r\nb\r\nConnection: close\r\n"},
      {"ab\r\nConnection: close\r\nHost: b\r\n", "ab\r\nHost: b\r\n"},
  });
}

TEST(copy_headers, one_byte_line_hides_no_more_than_one_line) {
  expect_copied({
      {"a\r\nb\r\nConnection: close\r\n", "a\r\nb\r\n"},
      {"a\r\nConnection: close\r\nProxy: x\r\nHost: b\r\n", "a\r\nConnection: close\r\nHost: b\r\n"},
  });
}

TEST(copy_headers, one_byte_line_at_the_end_is_lost) {
  EXPECT_EQ(http_proxy::copy_headers("GET / HTTP/1.1\r\nHost: a\r\nb\r\n"), "Host: a\r\n");
  // The last line and the empty line count as one line.
  EXPECT_EQ(http_proxy::copy_headers("GET / HTTP/1.1\r\nHost: a\r\nb\r\n\r\n"), "Host: a\r\nb\r\n\r\n");
}

TEST(copy_headers, empty_line_within_a_head_hides_the_line_after_it) {
  EXPECT_EQ(http_proxy::copy_headers("GET / HTTP/1.1\r\n\r\nConnection: close\r\n"),
            "\r\nConnection: close\r\n");
}

TEST(copy_headers, head_without_a_request_line_gives_nothing) {
  for (const char* head :
       {"", "\r\n", "\r\nHost: a\r\n", "\r\n\r\nHost: a\r\n", "GET / HTTP/1.1", "\n", "\r"})
    EXPECT_EQ(http_proxy::copy_headers(head), "") << head;
}

TEST(copy_headers, unfinished_last_line_is_left_out) {
  EXPECT_EQ(http_proxy::copy_headers("GET / HTTP/1.1\r\nHost: a\r\nAccept: b"), "Host: a\r\n");
  EXPECT_EQ(http_proxy::copy_headers("GET / HTTP/1.1\r\nHost: a"), "");
  EXPECT_EQ(http_proxy::copy_headers("GET / HTTP/1.1\r\nHost: a\r\nAccept: b\r"), "Host: a\r\n");
  EXPECT_EQ(http_proxy::copy_headers("GET / HTTP/1.1\r\n"), "");
}

TEST(copy_headers, request_line_of_one_byte_counts_as_one) {
  EXPECT_EQ(http_proxy::copy_headers("G\r\nHost: a\r\nConnection: x\r\n"), "Host: a\r\n");
}

TEST(copy_headers, bare_line_feeds_do_not_end_a_line) {
  EXPECT_EQ(http_proxy::copy_headers("GET / HTTP/1.1\r\nHost: a\nConnection: close\r\n"),
            "Host: a\nConnection: close\r\n");
}

TEST(copy_headers, zero_bytes_are_kept) {
  const std::string line = std::string("X: a\0b", 6) + "\r\n";
  EXPECT_EQ(http_proxy::copy_headers(request_line + line), line);
}
