#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "base/text.h"

using base::escape;
using namespace std::string_literals;

namespace {

// The bytes that have an escape of their own, in both forms.
const std::map<char, std::string> short_escapes = {
    {'"', "\\\""}, {'\\', "\\\\"}, {'\b', "\\b"}, {'\f', "\\f"},
    {'\n', "\\n"}, {'\r', "\\r"},  {'\t', "\\t"}, {'\0', "\\0"},
};

std::string formatted(const char* format, int byte) {
  char text[16];
  snprintf(text, sizeof(text), format, byte);
  return text;
}

std::string expected_for(int byte, bool json) {
  auto found = short_escapes.find(static_cast<char>(byte));
  if (found != short_escapes.end()) return found->second;
  if (byte >= 0x20 && byte <= 0x7E) return std::string(1, static_cast<char>(byte));
  if (!json) return formatted("\\x%02x", byte);
  return byte < 0x80 ? formatted("\\u%04x", byte) : "\\uffff";
}

struct row {
  std::string bytes, text;
};

void expect_json(const std::vector<row>& rows) {
  for (const auto& r : rows) EXPECT_EQ(escape(r.bytes, true), r.text);
}

}  // namespace

TEST(escape, each_byte_on_its_own_has_its_text) {
  for (bool json : {false, true}) {
    for (int byte = 0; byte < 256; byte++) {
      const std::string expected = expected_for(byte, json);
      EXPECT_EQ(escape(std::string(1, static_cast<char>(byte)), json), expected) << byte;
    }
  }
}

TEST(escape, each_byte_between_letters_has_the_same_text) {
  for (bool json : {false, true}) {
    for (int byte = 0; byte < 256; byte++) {
      const std::string text = "a" + std::string(1, static_cast<char>(byte)) + "b";
      EXPECT_EQ(escape(text, json), "a" + expected_for(byte, json) + "b") << byte;
    }
  }
}

TEST(escape, empty_string_stays_empty) {
  EXPECT_EQ(escape("", false), "");
  EXPECT_EQ(escape("", true), "");
}

TEST(escape, surrounding_quotes_are_not_added) {
  EXPECT_EQ(escape("\"q\"", true), "\\\"q\\\"");
}

TEST(escape, zero_byte_does_not_end_the_string) {
  for (bool json : {false, true}) EXPECT_EQ(escape("a\0b\0"s, json), "a\\0b\\0");
}

TEST(escape, hexadecimal_form_never_decodes) {
  EXPECT_EQ(escape("\xc3\xa9\xf0\x9f\x98\x80", false), "\\xc3\\xa9\\xf0\\x9f\\x98\\x80");
}

TEST(escape, json_form_writes_a_code_point_as_four_lower_case_digits) {
  expect_json({
      {"\x01", "\\u0001"},
      {"\x7f", "\\u007f"},
      {"\xc2\x80", "\\u0080"},
      {"\xc3\xa9", "\\u00e9"},
      {"\xdf\xbf", "\\u07ff"},
      {"\xe0\xa0\x80", "\\u0800"},
      {"\xea\xaf\x8d", "\\uabcd"},
      {"\xed\x9f\xbf", "\\ud7ff"},
      {"\xee\x80\x80", "\\ue000"},
      {"\xef\xbf\xbf", "\\uffff"},
  });
}

TEST(escape, json_form_writes_large_code_points_as_surrogate_pairs) {
  expect_json({
      {"\xf0\x90\x80\x80", "\\ud800\\udc00"},
      {"\xf0\x9f\x98\x80", "\\ud83d\\ude00"},
      {"\xf4\x8f\xbf\xbf", "\\udbff\\udfff"},
      {"\xf4\x90\x80\x80", "\\udc00\\udc00"},  // above U+10FFFF, and let through
      {"\xf7\xbf\xbf\xbf", "\\udfbf\\udfff"},
  });
}

TEST(escape, json_form_writes_each_byte_of_an_invalid_sequence_as_ffff) {
  expect_json({
      {"\x80", "\\uffff"},
      {"\xc0\x80", "\\uffff\\uffff"},
      {"\xc1\xbf", "\\uffff\\uffff"},
      {"\xe0\x9f\xbf", "\\uffff\\uffff\\uffff"},
      {"\xed\xa0\x80", "\\uffff\\uffff\\uffff"},
      {"\xed\xbf\xbf", "\\uffff\\uffff\\uffff"},
      {"\xf0\x8f\xbf\xbf", "\\uffff\\uffff\\uffff\\uffff"},
      {"\xf8\x88\x80\x80\x80", "\\uffff\\uffff\\uffff\\uffff\\uffff"},
      {"\xf0\x9f\x98", "\\uffff\\uffff\\uffff"},
      {"\xc3", "\\uffff"},
  });
}

TEST(escape, json_form_examines_the_bytes_after_an_invalid_one_again) {
  expect_json({
      {"\xc3(", "\\uffff("},
      {"\xc3\xc3\xa9", "\\uffff\\u00e9"},
      {"\xe2\x82\"", "\\uffff\\uffff\\\""},
      {"\xf0\x9f\xc3\xa9", "\\uffff\\uffff\\u00e9"},
      {"\xc3\0x"s, "\\uffff\\0x"},
      {"\xe2\n\x82", "\\uffff\\n\\uffff"},
      {"\xff\xf0\x9f\x98\x80", "\\uffff\\ud83d\\ude00"},
  });
}

TEST(escape, texts_follow_one_another_in_order) {
  EXPECT_EQ(escape("a\"\xc3\xa9\\\xf0\x9f\x98\x80\n\x01z", true),
            "a\\\"\\u00e9\\\\\\ud83d\\ude00\\n\\u0001z");
  EXPECT_EQ(escape("a\"\xe9\\\n\x01z", false), "a\\\"\\xe9\\\\\\n\\x01z");
}
