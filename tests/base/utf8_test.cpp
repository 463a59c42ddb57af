#include <gtest/gtest.h>

#include <string>

#include "base/text.h"
#include "tests/base/utf8.h"

using base::invalid_code_point;
using base::utf8_decode;
using namespace std::string_literals;

namespace {

// Long enough that the text gets a heap block of its own. The sanitizer watches the end of that block.
const std::string before(64, 'x');

// What is decoded after `before`, and how many bytes it took.
struct decoded {
  uint32_t code_point;
  size_t consumed;
};

decoded decode(const std::string& bytes) {
  const std::string text = before + bytes;
  size_t pos = before.size();
  uint32_t code_point = utf8_decode(text, pos);
  return {code_point, pos - before.size()};
}

void expect_invalid(const std::string& bytes) {
  decoded d = decode(bytes);
  EXPECT_EQ(d.code_point, invalid_code_point) << testing::PrintToString(bytes);
  EXPECT_EQ(d.consumed, 1u) << testing::PrintToString(bytes);
}

}  // namespace

TEST(utf8_decode, invalid_code_point_has_all_bits_set) {
  EXPECT_EQ(invalid_code_point, 0xFFFFFFFFu);
}

TEST(utf8_decode, takes_the_first_and_the_last_of_every_length) {
  const struct {
    std::string bytes;
    uint32_t code_point;
  } rows[] = {
      {"\0"s, 0},
      {"\x7f", 0x7F},
      {"\xc2\x80", 0x80},
      {"\xc3\xa9", 0xE9},
      {"\xdf\xbf", 0x7FF},
      {"\xe0\xa0\x80", 0x800},
      {"\xe2\x82\xac", 0x20AC},
      {"\xed\x9f\xbf", 0xD7FF},
      {"\xee\x80\x80", 0xE000},
      {"\xef\xbf\xbf", 0xFFFF},
      {"\xf0\x90\x80\x80", 0x10000},
      {"\xf0\x9f\x98\x80", 0x1F600},
      {"\xf4\x8f\xbf\xbf", 0x10FFFF},
      {"\xf4\x90\x80\x80", 0x110000},  // four-byte values have no other limit
      {"\xf7\xbf\xbf\xbf", 0x1FFFFF},
  };
  for (const auto& row : rows) {
    decoded d = decode(row.bytes);
    EXPECT_EQ(d.code_point, row.code_point);
    EXPECT_EQ(d.consumed, row.bytes.size()) << std::hex << row.code_point;
    EXPECT_EQ(decode(row.bytes + "\x80").consumed, row.bytes.size()) << "the byte after it is not part of it";
  }
}

TEST(utf8_decode, byte_that_starts_no_sequence_is_invalid) {
  for (int c = 0x80; c < 0x100; c++) {
    if (c >= 0xC0 && c < 0xF8) continue;
    expect_invalid(std::string(1, static_cast<char>(c)));
    expect_invalid(static_cast<char>(c) + "\x80\x80\x80\x80\x80\x80"s);
    expect_invalid(static_cast<char>(c) +
                   "\xbf\xbf\xbf\xbf\xbf\xbf"s);  // not to be taken for an overlong form
  }
}

TEST(utf8_decode, overlong_form_is_invalid) {
  for (const char* bytes :
       {"\xc0\x80", "\xc1\xbf", "\xe0\x80\x80", "\xe0\x9f\xbf", "\xf0\x80\x80\x80", "\xf0\x8f\xbf\xbf"})
    expect_invalid(bytes);
}

TEST(utf8_decode, encoded_surrogate_is_invalid) {
  for (const char* bytes : {"\xed\xa0\x80", "\xed\xaf\xbf", "\xed\xb0\x80", "\xed\xbf\xbf"})
    expect_invalid(bytes);
}

TEST(utf8_decode, sequence_cut_short_at_the_end_of_the_text_is_invalid) {
  for (const char* bytes : {"\xc3", "\xe2", "\xe2\x82", "\xf0", "\xf0\x9f", "\xf0\x9f\x98"})
    expect_invalid(bytes);
}

TEST(utf8_decode, sequence_with_a_wrong_continuation_byte_is_invalid) {
  const std::string sequences[] = {"\xc3\xa9", "\xe2\x82\xac", "\xf0\x9f\x98\x80"};
  for (const auto& sequence : sequences) {
    for (size_t i = 1; i < sequence.size(); i++) {
      for (char wrong : {'\0', '\x01', '(', '\x7f', '\xc0', '\xc3', '\xff'}) {
        std::string broken = sequence;
        broken[i] = wrong;
        expect_invalid(broken);
      }
    }
  }
}

TEST(utf8_decode, of_all_pairs_of_bytes_only_the_two_byte_forms_decode_to_more_than_ascii) {
  for (uint32_t lead = 0x80; lead < 0x100; lead++) {
    for (uint32_t next = 0; next < 0x100; next++) {
      const bool is_form = lead >= 0xC2 && lead < 0xE0 && next >= 0x80 && next < 0xC0;
      const uint32_t expected = is_form ? (lead & 31) << 6 | (next & 63) : invalid_code_point;
      decoded d = decode({static_cast<char>(lead), static_cast<char>(next)});
      ASSERT_EQ(d.code_point, expected) << lead << " " << next;
      ASSERT_EQ(d.consumed, is_form ? 2u : 1u) << lead << " " << next;
    }
  }
}

TEST(utf8_decode, every_code_point_of_21_bits_comes_back) {
  std::string text;
  for (uint32_t c = 0; c < 0x200000; c++) {
    if (c >= 0xD800 && c < 0xE000) continue;
    text.clear();
    append_utf8(text, c);
    size_t pos = 0;
    ASSERT_EQ(utf8_decode(text, pos), c);
    ASSERT_EQ(pos, text.size()) << c;
  }
}
