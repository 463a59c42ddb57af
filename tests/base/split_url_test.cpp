#include "base/split_url.h"

#include <gtest/gtest.h>

#include <string>
#include <type_traits>
#include <vector>

using namespace std::string_literals;

namespace {

struct row {
  std::string url, scheme, host;
  int32_t port;
  std::string path;
};

void expect_parts(const std::vector<row>& rows) {
  for (const auto& r : rows) {
    const split_url url(r.url);
    EXPECT_EQ(url.scheme, r.scheme) << r.url;
    EXPECT_EQ(url.host, r.host) << r.url;
    EXPECT_EQ(url.port, r.port) << r.url;
    EXPECT_EQ(url.path, r.path) << r.url;
  }
}

}  // namespace

TEST(split_url, is_made_of_scheme_host_port_and_path) {
  split_url url("http://h:1/p");
  auto& [scheme, host, port, path] = url;
  static_assert(std::is_same_v<std::remove_reference_t<decltype(port)>, int32_t>);
  EXPECT_EQ(scheme, "http");
  EXPECT_EQ(host, "h");
  EXPECT_EQ(port, 1);
  EXPECT_EQ(path, "/p");
}

TEST(split_url, whole_url_is_cut_into_four_parts) {
  expect_parts({
      {"http://h/a?b", "http", "h", 80, "/a?b"},
      {"http://www.example.com:8080/a/b/c", "http", "www.example.com", 8080, "/a/b/c"},
      {"https://h:8443/#top", "https", "h", 8443, "/#top"},
      {"ftp://h:2121/file", "ftp", "h", 2121, "/file"},
  });
}

TEST(split_url, port_defaults_by_the_exact_scheme) {
  expect_parts({
      {"http://h", "http", "h", 80, "/"},
      {"https://h", "https", "h", 443, "/"},
      {"ftp://h", "ftp", "h", 21, "/"},
      {"HTTPS://h", "HTTPS", "h", 80, "/"},
      {"FTP://h", "FTP", "h", 80, "/"},
      {"ftps://h", "ftps", "h", 80, "/"},
      {"httpss://h", "httpss", "h", 80, "/"},
      {"ws://h", "ws", "h", 80, "/"},
      {"x://h/", "x", "h", 80, "/"},
  });
}

TEST(split_url, without_a_scheme_is_http) {
  expect_parts({
      {"", "http", "", 80, "/"},
      {"h", "http", "h", 80, "/"},
      {"h/p", "http", "h", 80, "/p"},
      {"h:81/p", "http", "h", 81, "/p"},
      {"https", "http", "https", 80, "/"},
      {"https:/h", "http", "https", 0, "/h"},
      {"h:443", "http", "h", 443, "/"},  // as CONNECT names its target
  });
}

TEST(split_url, that_begins_with_two_slashes_is_https) {
  expect_parts({
      {"//h:8080/x", "https", "h", 8080, "/x"},
      {"//h", "https", "h", 443, "/"},
      {"//", "https", "", 443, "/"},
      {"///x", "https", "/x", 443, "/"},
      {"h//x", "http", "h", 80, "//x"},
      {"http:////x", "http", "//x", 80, "/"},
      {"/h//x", "http", "/h//x", 80, "/"},
  });
}

TEST(split_url, scheme_separator_further_on_wins_over_two_slashes_at_the_start) {
  expect_parts({{"//h/x://y/z", "//h/x", "y", 80, "/z"}, {"//://y", "//", "y", 80, "/"}});
}

TEST(split_url, only_the_first_scheme_separator_counts) {
  expect_parts({
      {"http://h/?u=https://i/", "http", "h", 80, "/?u=https://i/"},
      {"h/?u=https://i/", "h/?u=https", "i", 80, "/"},
  });
}

TEST(split_url, that_begins_with_the_scheme_separator_is_left_whole) {
  expect_parts({{"://h/x", "http", ":", 80, "//h/x"},
                {"://", "http", ":", 80, "//"},
                {"://h://x", "http", ":", 80, "//h://x"}});
}

TEST(split_url, slash_right_after_the_scheme_belongs_to_the_host) {
  expect_parts({
      {"http:///x", "http", "/x", 80, "/"},
      {"https:///x/y", "https", "/x/y", 443, "/"},
      {"/x", "http", "/x", 80, "/"},
      {"/", "http", "/", 80, "/"},
      {"http:///h:99", "http", "/h", 99, "/"},
  });
}

TEST(split_url, path_begins_at_the_first_slash_of_the_rest) {
  expect_parts({
      {"http://h?a=/b", "http", "h?a=", 80, "/b"},
      {"http://h?a=b", "http", "h?a=b", 80, "/"},
      {"http://h//", "http", "h", 80, "//"},
      {"http://h/a:5/b", "http", "h", 80, "/a:5/b"},
      {"http://h/m\u00FC\0x"s, "http", "h", 80, "/m\u00FC\0x"s},
  });
}

TEST(split_url, port_is_read_as_strtol_reads_it) {
  expect_parts({
      {"http://h:", "http", "h", 0, "/"},
      {"http://h:/", "http", "h", 0, "/"},
      {"http://h:abc/", "http", "h", 0, "/"},
      {"https://h:abc/", "https", "h", 0, "/"},
      {"http://h:80abc/", "http", "h", 80, "/"},
      {"http://h: 81/", "http", "h", 81, "/"},
      {"http://h:+82/", "http", "h", 82, "/"},
      {"http://h:-83/", "http", "h", -83, "/"},
      {"http://h:0x50/", "http", "h", 0, "/"},
      {"http://h:0084/", "http", "h", 84, "/"},
      {"http://h:65536/", "http", "h", 65536, "/"},
      {"http://h:2147483647/", "http", "h", INT32_MAX, "/"},
      {"http://h:1:2/", "http", "h", 1, "/"},
  });
}

// strtol() stops at the largest long. The lower 32 bits of its result are kept.
TEST(split_url, port_of_more_than_31_bits_wraps) {
  expect_parts({
      {"http://h:2147483648/", "http", "h", INT32_MIN, "/"},
      {"http://h:4294967376/", "http", "h", 80, "/"},
      {"http://h:-4294967297/", "http", "h", -1, "/"},
      {"http://h:9223372036854775888/", "http", "h", -1, "/"},
      {"http://h:-9223372036854775888/", "http", "h", 0, "/"},
  });
}

TEST(split_url, colon_in_the_first_place_belongs_to_the_host) {
  expect_parts({
      {"http://:81/", "http", ":81", 80, "/"},
      {"https://:81/", "https", ":81", 443, "/"},
      {"ftp://:", "ftp", ":", 21, "/"},
  });
}

TEST(split_url, user_information_and_bracketed_addresses_are_not_understood) {
  expect_parts({
      {"http://user:pass@h/", "http", "user", 0, "/"},
      {"http://user@h/", "http", "user@h", 80, "/"},
      {"http://[::1]:8080/x", "http", "[", 0, "/x"},
      {"http://[2001:db8::1]/", "http", "[2001", 0, "/"},
  });
}

TEST(split_url, host_is_converted_to_ascii) {
  expect_parts({
      {"http://m\u00FCnchen.de:81/\u00FC", "http", "xn--mnchen-3ya.de", 81, "/\u00FC"},
      {"//b\u00FCcher", "https", "xn--bcher-kva", 443, "/"},
      {"http://WWW.Example.COM./", "http", "WWW.Example.COM.", 80, "/"},
      {"http://a..b/", "http", "a..b", 80, "/"},
      {"http://a\0b.c/"s, "http", "a.c", 80, "/"},
  });
}

TEST(split_url, long_url_is_cut_like_a_short_one) {
  const std::string host(100000, 'h'), path(100000, '/');
  expect_parts({{"http://" + host + ":81" + path, "http", host, 81, path}});
}
