#include "base/host_name.h"

#include <gtest/gtest.h>

#include <cctype>
#include <string>

using base::is_host_name;

TEST(host_name, is_made_of_labels_of_letters_digits_and_hyphens) {
  for (const char* host : {"a", "localhost", "www.Example.COM", "xn--mnchen-3ya.de", "127.0.0.1", "127.1",
                           "0x7f.1", "a-b.c--d.-", "_service.example.org", "a_b"})
    EXPECT_TRUE(is_host_name(host)) << host;
}

TEST(host_name, has_no_other_byte) {
  for (int c = 0; c < 256; c++) {
    const bool is_allowed = (c < 128 && isalnum(c)) || c == '-' || c == '_' || c == '.';
    EXPECT_EQ(is_host_name("a" + std::string(1, static_cast<char>(c)) + "b"), is_allowed) << c;
  }
}

TEST(host_name, has_no_empty_label_except_after_a_last_dot) {
  for (const char* host : {"", ".", "..", ".a", "a..b", "a.."}) EXPECT_FALSE(is_host_name(host)) << host;
  EXPECT_TRUE(is_host_name("a."));
  EXPECT_TRUE(is_host_name("a.b."));
}

TEST(host_name, has_labels_of_up_to_63_bytes) {
  const std::string longest(63, 'x');
  EXPECT_TRUE(is_host_name(longest));
  EXPECT_TRUE(is_host_name("a." + longest + ".b"));
  EXPECT_FALSE(is_host_name(longest + "x"));
  EXPECT_FALSE(is_host_name("a." + longest + "x.b"));
}

TEST(host_name, has_up_to_253_bytes) {
  std::string longest;
  while (longest.size() < 252) longest += "x.";
  longest += "x";
  ASSERT_EQ(longest.size(), 253u);
  EXPECT_TRUE(is_host_name(longest));
  EXPECT_TRUE(is_host_name(longest + "."));
  EXPECT_FALSE(is_host_name(longest + "x"));
  EXPECT_FALSE(is_host_name(longest + "x."));
  EXPECT_FALSE(is_host_name(std::string(400000, '.')));
}
