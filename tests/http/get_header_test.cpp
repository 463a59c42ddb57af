// http_connection::get_header and ::info.

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>

#include "base/find.h"
#include "http/http_connection.h"

namespace {

using namespace std::string_literals;

struct lookup {
  std::string name, text, expected;
};

void expect_lookups(const std::vector<lookup>& all) {
  for (const lookup& t : all)
    EXPECT_EQ(http_connection::get_header(t.name, t.text), t.expected) << t.name << " in " << t.text;
}

class case_sensitive {
 public:
  case_sensitive() { base::find_case_insensitive() = false; }
  ~case_sensitive() { base::find_case_insensitive() = true; }
};

std::string info(const char* ip, const std::string& lines, bool with_agent) {
  auto c = std::make_unique<http_connection>();
  inet_pton(AF_INET, ip, &c->ip);
  c->port = 8080;
  c->method = "GET";
  c->target = "/t?q";
  c->version = "HTTP/1.1";
  c->head = "GET /t?q HTTP/1.1\r\n" + lines;
  return c->info(with_agent);
}

}  // namespace

TEST(get_header, value_runs_from_two_bytes_after_the_name_to_the_line_end) {
  expect_lookups({
      {"Host", "G\r\nHost: a\r\nB: c\r\n", "a"},
      {"Host", "G\r\nHost: a", "a"},
      {"Host", "G\r\nHost: ", ""},
      {"Host", "G\r\nHost: \r\n", ""},
      {"Host", "G\r\nHost:  a b \t\r\n", " a b \t"},
      {"Host", "G\r\nHost: a\rb\nc\r\n", "a\rb\nc"},
      {"Host", "G\r\nHost: a\r", "a\r"},
      {"Host", "G\r\nHost: \0\xFF\r\n"s, "\0\xFF"s},
      {"B", "G\r\nA: 1\r\nB: 2\r\nC: 3\r\n", "2"},
      {"C", "G\r\nA: 1\r\nB: 2\r\nC: 3\r\n", "3"},
  });
}

TEST(get_header, without_a_match_is_empty) {
  expect_lookups({
      {"Host", "", ""},
      {"Host", "\r\n", ""},
      {"Host", "G\r\nHos", ""},
      {"Host", "Host: a\r\n", ""},
      {"GET", "GET / HTTP/1.1\r\n", ""},
      {"Host", "G\r\nX-Host: a\r\n", ""},
      {"Host", "G\r\n Host: a\r\n", ""},
      {"Host", "G\nHost: a\r\n", ""},
      {"Host", "G\rHost: a\r\n", ""},
      {"Host", "G\r\nA: Host: a\r\n", ""},
  });
}

TEST(get_header, letters_a_to_z_match_in_either_case_and_no_other_bytes) {
  expect_lookups({
      {"Host", "G\r\nHOST: a\r\n", "a"},
      {"hOST", "G\r\nHost: a\r\n", "a"},
      {"AZaz", "G\r\nazAZ: a\r\n", "a"},
      {"x[y", "G\r\nx{y: a\r\n", ""},
      {"x@y", "G\r\nx`y: a\r\n", ""},
      {"x\xC4y", "G\r\nx\xE4y: a\r\n", ""},
      {"x-y", "G\r\nx\ry: a\r\n", ""},
  });
}

TEST(get_header, first_line_that_begins_with_the_name_counts) {
  expect_lookups({
      {"content-length", "G\r\ncontent-length-x: 7\r\n", ": 7"},
      {"content-length", "G\r\ncontent-length-x: 7\r\ncontent-length: 5\r\n", ": 7"},
      {"A", "G\r\nA: 1\r\na: 2\r\n", "1"},
      {"A", "\r\nA: 1\r\nA: 2\r\n", "1"},
      {"", "G\r\nA: 1\r\n", " 1"},
      {"A", "G\r\r\nA: 1\r\n", "1"},
      {"A", "G\r\n\r\nA: 1\r\n", "1"},
  });
}

TEST(get_header, two_bytes_after_the_name_are_skipped_unseen) {
  expect_lookups({
      {"host", "G\r\nHost:a\r\n", ""},
      {"host", "G\r\nHost:abc\r\n", "bc"},
      {"host", "G\r\nHost\t\tabc\r\n", "abc"},
      {"host", "G\r\nHost\r\nA: 1\r\n", "A: 1"},
      {"host", "G\r\nHost:\r\nA: 1\r\n", "\nA: 1"},
  });
}

TEST(get_header, text_that_ends_less_than_two_bytes_after_the_name_is_out_of_range) {
  for (const char* text : {"G\r\nHost", "G\r\nHost:", "\r\nhOST", "\r\nA: 1\r\nhost:"})
    EXPECT_THROW(http_connection::get_header("Host", text), std::out_of_range) << text;
  EXPECT_THROW(http_connection::get_header("H*t", "\r\nHost:"), std::out_of_range);
  EXPECT_EQ(http_connection::get_header("Host", "\r\nHost\r\n"), "");
}

TEST(get_header, question_mark_matches_one_byte_and_star_any_run) {
  expect_lookups({
      {"h?st", "G\r\nHust: a\r\n", "a"},
      {"h?st", "G\r\nHst: a\r\nHo\0st: b\r\nH\xFFst: c\r\n"s, "c"},
      {"????", "G\r\nabcd: a\r\n", "a"},
      {"h*t", "G\r\nHost: a\r\n", "a"},
      {"h*t", "G\r\nHt: a\r\n", "a"},
      {"h*t", "G\r\nHeat-test: a\r\n", "est: a"},
      {"h*:", "G\r\nHost:  a\r\n", "a"},
      {"h*b", "G\r\nHost: a\r\nB: c\r\n", "c"},
      {"*b", "G\r\nA: a\r\nB: c\r\n", "c"},
      {"a*bc", "G\r\nAxbbc: v\r\n", "v"},
      {"a*b*c", "G\r\nAxxbyyc: v\r\n", "v"},
      {"h*t", "G\r\nHos: a\r\n", ""},
  });
}

TEST(get_header, after_a_star_only_what_follows_it_is_tried_again) {
  // The part before the star is not tried again after the first line start that it matches.
  expect_lookups({{"a*b?d", "G\r\nAb1cb2d: v\r\n", "v"}, {"*", "G\r\nA: 1\r\n", " 1"}});
}

TEST(get_header, obeys_the_flag_that_makes_case_matter) {
  case_sensitive now;
  expect_lookups({
      {"Host", "G\r\nHOST: a\r\n", ""},
      {"Host", "G\r\nHOST: a\r\nhost: b\r\nHost: c\r\n", "c"},
      {"H?st", "G\r\nhost: a\r\nHost: b\r\n", "b"},
  });
}

TEST(get_header, ignores_case_unless_told_otherwise) {
  EXPECT_TRUE(base::find_case_insensitive());
}

TEST(get_header, name_is_compared_beyond_a_zero_byte) {
  expect_lookups({{"a\0b"s, "G\r\na\0c: 1\r\nA\0B: 2\r\n"s, "2"}});
}

TEST(info, is_the_peer_and_the_request_line_and_on_demand_the_agent) {
  EXPECT_EQ(info("10.0.0.7", "User-Agent: curl/8.0\r\n", true), "10.0.0.7:8080 GET /t?q HTTP/1.1 [curl/8.0]");
  EXPECT_EQ(info("10.0.0.7", "User-Agent: curl/8.0\r\n", false), "10.0.0.7:8080 GET /t?q HTTP/1.1");
  EXPECT_EQ(info("255.1.20.254", "", true), "255.1.20.254:8080 GET /t?q HTTP/1.1 []");
  auto fresh = std::make_unique<http_connection>();
  EXPECT_EQ(fresh->info(false), "0.0.0.0:0   ");
  EXPECT_EQ(fresh->info(true), "0.0.0.0:0    []");
}

TEST(info, believes_x_forwarded_for_only_from_127_0_0_1) {
  const std::string line = " GET /t?q HTTP/1.1";
  const std::string forwarded = "X-FORWARDED-FOR: 1.2.3.4, 5.6.7.8\r\n";
  EXPECT_EQ(info("127.0.0.1", forwarded, false), "1.2.3.4, 5.6.7.8:8080" + line);
  EXPECT_EQ(info("127.0.0.1", "", false), "127.0.0.1:8080" + line);
  EXPECT_EQ(info("127.0.0.1", "X-Forwarded-For: \r\n", false), "127.0.0.1:8080" + line);
  EXPECT_EQ(info("127.0.0.2", forwarded, false), "127.0.0.2:8080" + line);
  EXPECT_EQ(info("1.0.0.127", forwarded, false), "1.0.0.127:8080" + line);
}
