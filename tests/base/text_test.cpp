#include "base/text.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <utility>
#include <vector>

using namespace std::string_literals;

namespace {

std::string hex(const std::string& bytes) {
  std::string out;
  char digits[3];
  for (char c : bytes) {
    snprintf(digits, sizeof(digits), "%02x", static_cast<unsigned char>(c));
    out += digits;
  }
  return out;
}

std::string bytes_from_0_to_255() {
  std::string s;
  for (int c = 0; c < 256; c++) s += static_cast<char>(c);
  return s;
}

TEST(empty_for_reuse, text_of_usual_length_keeps_its_memory) {
  std::string text(60000, 'x');
  const size_t capacity = text.capacity();
  base::empty_for_reuse(text);
  EXPECT_EQ(text, "");
  EXPECT_EQ(text.capacity(), capacity);
}

TEST(empty_for_reuse, long_text_gives_its_memory_back) {
  std::string text(70000, 'x');
  base::empty_for_reuse(text);
  EXPECT_EQ(text, "");
  EXPECT_LT(text.capacity(), 100U);
}

TEST(empty_for_reuse, memory_is_kept_up_to_64_kib_and_no_byte_further) {
  std::string longest_kept(65536, 'x'), longer(65537, 'x');
  ASSERT_EQ(longest_kept.capacity(), 65536U);
  ASSERT_EQ(longer.capacity(), 65537U);
  base::empty_for_reuse(longest_kept);
  base::empty_for_reuse(longer);
  EXPECT_EQ(longest_kept.capacity(), 65536U);
  EXPECT_LT(longer.capacity(), 100U);
}

TEST(append_dotted_quad, bytes_are_taken_in_network_order_and_appended) {
  const std::pair<std::vector<unsigned char>, std::string> cases[] = {
      {{0, 0, 0, 0}, "0.0.0.0"},
      {{127, 0, 0, 1}, "127.0.0.1"},
      {{1, 22, 133, 9}, "1.22.133.9"},
      {{255, 255, 255, 255}, "255.255.255.255"},
  };
  for (const auto& [bytes, quad] : cases) {
    uint32_t ip = 0;
    memcpy(&ip, bytes.data(), sizeof(ip));
    std::string text = "from ";
    base::append_dotted_quad(text, ip);
    EXPECT_EQ(text, "from " + quad);
  }
}

}  // namespace

TEST(num, whole_numbers_have_all_their_digits_and_others_six) {
  const struct {
    double x;
    std::string text;
  } rows[] = {
      {0.0, "0"},
      {-0.0, "-0"},
      {3.0, "3"},
      {-3.0, "-3"},
      {1234567.0, "1234567"},
      {4294967296.0, "4294967296"},
      {9007199254740993.0, "9007199254740992"},
      {1e20, "100000000000000000000"},
      {-1e22, "-10000000000000000000000"},
      {0.1, "0.1"},
      {0.5, "0.5"},
      {-0.25, "-0.25"},
      {1.0 / 3, "0.333333"},
      {1e-5, "1e-05"},
      {1e-300, "1e-300"},
      {5e-324, "4.94066e-324"},
      {99999.95, "99999.9"},
      {123456.5, "123456"},
      {999999.5, "1e+06"},
      {1234567.5, "1.23457e+06"},
      {1000000000000000.5, "1e+15"},
  };
  for (const auto& row : rows) EXPECT_EQ(base::num(row.x), row.text);
}

TEST(num, largest_numbers_are_written_in_full) {
  EXPECT_EQ(base::num(1e300),
            "100000000000000005250476025520442024870446858110815915491585411551180245798890819578637137"
            "508044786404370444383288387817694252323536043057564479218478670698284838720092657580373783"
            "023379478809005936895323497079994508111903896764088007465274278014249457925878882005684283"
            "8115669472196386865459400540160");
  EXPECT_EQ(base::num(-std::numeric_limits<double>::max()),
            "-17976931348623157081452742373170435679807056752584499659891747680315726078002853876058955"
            "863276687817154045895351438246423432132688946418276846754670353751698604991057655128207624"
            "549009038932894407586850845513394230458323690322294816580855933212334827479782620414472316"
            "8738177180919299881250404026184124858368");
}

TEST(num, infinity_and_nan_have_names) {
  const double infinity = std::numeric_limits<double>::infinity();
  EXPECT_EQ(base::num(infinity), "inf");
  EXPECT_EQ(base::num(-infinity), "-inf");
  EXPECT_EQ(base::num(std::numeric_limits<double>::quiet_NaN()), "nan");
}

TEST(base64, encodes_the_vectors_of_rfc_4648_section_10) {
  const struct {
    std::string bytes, text;
  } rows[] = {
      {"", ""},
      {"f", "Zg=="},
      {"fo", "Zm8="},
      {"foo", "Zm9v"},
      {"foob", "Zm9vYg=="},
      {"fooba", "Zm9vYmE="},
      {"foobar", "Zm9vYmFy"},
  };
  for (const auto& row : rows) EXPECT_EQ(base::base64(row.bytes), row.text) << row.bytes;
}

TEST(base64, takes_every_byte) {
  const struct {
    std::string bytes, text;
  } rows[] = {
      {"abc", "YWJj"},          {"ab", "YWI="},       {"a", "YQ=="},    {"\0"s, "AA=="},
      {"\0\0"s, "AAA="},        {"\0\0\0"s, "AAAA"},  {"\xff", "/w=="}, {"\xff\xff", "//8="},
      {"\xff\xff\xff", "////"}, {"\xfb\xef", "++8="}, {"\xfb", "+w=="}, {"\xfb\xef\xbe", "++++"},
  };
  for (const auto& row : rows) EXPECT_EQ(base::base64(row.bytes), row.text);
  EXPECT_EQ(base::base64(bytes_from_0_to_255()),
            "AAECAwQFBgcICQoLDA0ODxAREhMUFRYXGBkaGxwdHh8gISIjJCUmJygpKissLS4vMDEyMzQ1Njc4OTo7PD0+P0"
            "BBQkNERUZHSElKS0xNTk9QUVJTVFVWV1hZWltcXV5fYGFiY2RlZmdoaWprbG1ub3BxcnN0dXZ3eHl6e3x9fn+A"
            "gYKDhIWGh4iJiouMjY6PkJGSk5SVlpeYmZqbnJ2en6ChoqOkpaanqKmqq6ytrq+wsbKztLW2t7i5uru8vb6/wM"
            "HCw8TFxsfIycrLzM3Oz9DR0tPU1dbX2Nna29zd3t/g4eLj5OXm5+jp6uvs7e7v8PHy8/T19vf4+fr7/P3+/w==");
}

TEST(base64, breaks_no_lines) {
  std::string expected;
  for (int i = 0; i < 25000; i++) expected += "YWJj";
  std::string bytes;
  for (int i = 0; i < 25000; i++) bytes += "abc";
  EXPECT_EQ(base::base64(bytes), expected);
}

TEST(sha1, digest_is_twenty_raw_bytes) {
  EXPECT_EQ(base::sha1("abc"),
            "\xa9\x99\x3e\x36\x47\x06\x81\x6a\xba\x3e\x25\x71\x78\x50\xc2\x6c\x9c\xd0\xd8\x9d");
}

TEST(sha1, hashes_the_vectors_of_the_standard) {
  const struct {
    std::string message, digest;
  } rows[] = {
      {"", "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
      {"abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
      {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
       "84983e441c3bd26ebaae4aa1f95129e5e54670f1"},
      {"abcdefghbcdefghicdefghijdefghijkefghijklfghijklmghijklmnhijklmnoijklmnopjklmnopqklmnopqrlmnopqrs"
       "mnopqrstnopqrstu",
       "a49b2446a02c645bf419f995b67091253a04a259"},
      {bytes_from_0_to_255(), "4916d6bdb7f78e6803698cab32d1586ea457dfc8"},
  };
  for (const auto& row : rows) EXPECT_EQ(hex(base::sha1(row.message)), row.digest) << row.message;
}

// The lengths are close to the ends of blocks, and to the longest message whose padding fits into its last
// block. The last row is the standard's example of a million letters. Digests by Python's hashlib.
TEST(sha1, message_may_end_anywhere_in_a_block) {
  const struct {
    size_t length;  // of a message of letters a
    std::string digest;
  } rows[] = {
      {0, "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
      {1, "86f7e437faa5a7fce15d1ddcb9eaeaea377667b8"},
      {3, "7e240de74fb1ed08fa08d38063f6a6a91462a815"},
      {54, "b05d71c64979cb95fa74a33cdb31a40d258ae02e"},
      {55, "c1c8bbdc22796e28c0e15163d20899b65621d65a"},
      {56, "c2db330f6083854c99d4b5bfb6e8f29f201be699"},
      {57, "f08f24908d682555111be7ff6f004e78283d989a"},
      {63, "03f09f5b158a7a8cdad920bddc29b81c18a551f5"},
      {64, "0098ba824b5c16427bd7a1122a5a442a25ec644d"},
      {65, "11655326c708d70319be2610e8a57d9a5b959d3b"},
      {111, "ac877859d427d9192054eea8feb3b8a403ef83a5"},
      {112, "689993727ba37386bb032495e9dbdfb4dd1ba744"},
      {119, "ee971065aaa017e0632a8ca6c77bb3bf8b1dfc56"},
      {120, "f34c1488385346a55709ba056ddd08280dd4c6d6"},
      {121, "fa6b5a6f8ac27182f838fe7841ec6d2aef3ade29"},
      {127, "89d95fa32ed44a7c610b7ee38517ddf57e0bb975"},
      {128, "ad5b3fdbcb526778c2839d2f151ea753995e26a0"},
      {129, "d96debf1bdcbc896e6c134ea76e8141f40d78536"},
      {1000, "291e9a6c66994949b57ba5e650361e98fc36b1ba"},
      {1000000, "34aa973cd4c4daa4f61eeb2bdbad27316534016f"},
  };
  for (const auto& row : rows)
    EXPECT_EQ(hex(base::sha1(std::string(row.length, 'a'))), row.digest) << row.length << " bytes";
}

// Its length in bits is a 28-bit number; only 32 bits of the length are hashed. Digest by Python's hashlib.
TEST(sha1, message_may_be_many_megabytes_long) {
  EXPECT_EQ(hex(base::sha1(std::string(20000000, 'a'))), "c774e73ff141873fd8a6f7758ee99b685cb4bf28");
}
