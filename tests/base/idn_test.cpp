#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "base/split_url.h"
#include "base/text.h"
#include "tests/base/punycode_model.h"
#include "tests/base/punycode_vectors.h"
#include "tests/base/utf8.h"

using namespace std::string_literals;

namespace {

std::string idn(const std::string& host) {
  return split_url::utf8_to_idn(host);
}

std::string utf8(const code_points& text) {
  std::string s;
  for (uint32_t c : text) append_utf8(s, c);
  return s;
}

// `count` different code points from `first` on, none of them a surrogate.
code_points distinct(size_t count, uint32_t first) {
  code_points out;
  for (uint32_t c = first; out.size() < count; c++) {
    if (c < 0xD800 || c >= 0xE000) out.push_back(c);
  }
  return out;
}

}  // namespace

TEST(utf8_to_idn, ascii_host_comes_back_unchanged) {
  std::string all_but_the_dot;
  for (char c = 1; c < 0x7F; c++) all_but_the_dot += c == '.' ? 'x' : c;
  for (const char* host :
       {"", "localhost", "www.Example.COM", "a-b.c--d.-", "xn--mnchen-3ya.de", "127.0.0.1", "\x7f"})
    EXPECT_EQ(idn(host), host);
  EXPECT_EQ(idn(all_but_the_dot), all_but_the_dot);
}

TEST(utf8_to_idn, each_label_is_converted_on_its_own) {
  EXPECT_EQ(idn("m\u00FCnchen.de"), "xn--mnchen-3ya.de");
  EXPECT_EQ(idn("www.M\u00FCnchen.DE"), "www.xn--Mnchen-3ya.DE");  // no letter is folded
  EXPECT_EQ(idn("b\u00FCcher.b\u00FCcher"), "xn--bcher-kva.xn--bcher-kva");
}

TEST(utf8_to_idn, empty_label_stays) {
  for (const char* host : {".", "..", ".a", "a.", "a..b", "a.b."}) EXPECT_EQ(idn(host), host);
  EXPECT_EQ(idn("b\u00FCcher..de."), "xn--bcher-kva..de.");
}

TEST(utf8_to_idn, delimiter_follows_ascii_only_in_front_of_other_code_points) {
  EXPECT_EQ(idn("\u00FC"), "xn--tda");
  EXPECT_EQ(idn("a-\u00FC"), "xn--a--yka");
  EXPECT_EQ(idn("a-"), "a-");
}

TEST(utf8_to_idn, label_ends_at_its_first_zero_byte) {
  EXPECT_EQ(idn("a\0b.c\0d"s), "a.c");
}

// All punycode digits are in lower case here. The RFC has one in upper case, which marks the case of a
// Cyrillic letter.
TEST(utf8_to_idn, encodes_the_samples_of_rfc_3492_section_7_1) {
  const punycode_vector rows[] = {
      {"\u0644\u064A\u0647\u0645\u0627\u0628\u062A\u0643\u0644\u0645\u0648\u0634\u0639\u0631\u0628\u064A"
       "\u061F",
       "egbpdaj6bu4bxfgehfvwxn"},  // Arabic
      {"\u4ED6\u4EEC\u4E3A\u4EC0\u4E48\u4E0D\u8BF4\u4E2D\u6587",
       "ihqwcrb4cv8a8dqg056pqjye"},  // Chinese, simplified
      {"\u4ED6\u5011\u7232\u4EC0\u9EBD\u4E0D\u8AAA\u4E2D\u6587",
       "ihqwctvzc91f659drss3x8bo0yb"},  // Chinese, traditional
      {"Pro\u010Dprost\u011Bnemluv\u00ED\u010Desky", "Proprostnemluvesky-uyb24dma41a"},  // Czech
      {"\u05DC\u05DE\u05D4\u05D4\u05DD\u05E4\u05E9\u05D5\u05D8\u05DC\u05D0\u05DE\u05D3\u05D1\u05E8\u05D9"
       "\u05DD\u05E2\u05D1\u05E8\u05D9\u05EA",
       "4dbcagdahymbxekheh6e0a7fei0b"},  // Hebrew
      {"\u092F\u0939\u0932\u094B\u0917\u0939\u093F\u0928\u094D\u0926\u0940\u0915\u094D\u092F\u094B\u0902"
       "\u0928\u0939\u0940\u0902\u092C\u094B\u0932\u0938\u0915\u0924\u0947\u0939\u0948\u0902",
       "i1baa7eci9glrd9b2ae1bj0hfcgg6iyaf8o0a1dig0cd"},  // Hindi
      {"\u306A\u305C\u307F\u3093\u306A\u65E5\u672C\u8A9E\u3092\u8A71\u3057\u3066\u304F\u308C\u306A\u3044"
       "\u306E\u304B",
       "n8jok5ay5dzabd5bym9f0cm5685rrjetr6pdxa"},  // Japanese
      {"\uC138\uACC4\uC758\uBAA8\uB4E0\uC0AC\uB78C\uB4E4\uC774\uD55C\uAD6D\uC5B4\uB97C\uC774\uD574\uD55C"
       "\uB2E4\uBA74\uC5BC\uB9C8\uB098\uC88B\uC744\uAE4C",
       "989aomsvi5e83db1d2a355cv1e0vak1dwrv93d5xbh15a0dt30a5jpsd879ccm6fea98c"},  // Korean
      {"\u043F\u043E\u0447\u0435\u043C\u0443\u0436\u0435\u043E\u043D\u0438\u043D\u0435\u0433\u043E\u0432"
       "\u043E\u0440\u044F\u0442\u043F\u043E\u0440\u0443\u0441\u0441\u043A\u0438",
       "b1abfaaepdrnnbgefbadotcwatmq2g4l"},  // Russian
      {"Porqu\u00E9nopuedensimplementehablarenEspa\u00F1ol",
       "PorqunopuedensimplementehablarenEspaol-fmd56a"},  // Spanish
      {"T\u1EA1isaoh\u1ECDkh\u00F4ngth\u1EC3ch\u1EC9n\u00F3iti\u1EBFngVi\u1EC7t",
       "TisaohkhngthchnitingVit-kjcr8268qyxafd2f1b9g"},  // Vietnamese
      {"3\u5E74B\u7D44\u91D1\u516B\u5148\u751F",
       "3B-ww4c5e180e575a65lsy2b"},  // 3<nen>B<gumi><kinpachi><sensei>
      {"\u5B89\u5BA4\u5948\u7F8E\u6075-with-SUPER-MONKEYS",
       "-with-SUPER-MONKEYS-pc58ag80a8qai00g7n9n"},  // <amuro><namie>-with-SUPER-MONKEYS
      {"Hello-Another-Way-\u305D\u308C\u305E\u308C\u306E\u5834\u6240",
       "Hello-Another-Way--fc4qua05auwb3674vfr0b"},  // Hello-Another-Way-<sorezore><no><basho>
      {"\u3072\u3068\u3064\u5C4B\u6839\u306E\u4E0B2", "2-u9tlzr9756bt3uc0v"},  // <hitotsu><yane><no><shita>2
      {"Maji\u3067Koi\u3059\u308B5\u79D2\u524D",
       "MajiKoi5-783gue6qz075azm5e"},                                         // Maji<de>Koi<suru>5<byou><mae>
      {"\u30D1\u30D5\u30A3\u30FCde\u30EB\u30F3\u30D0", "de-jg4avhby1noc0d"},  // <pafii>de<runba>
      {"\u305D\u306E\u30B9\u30D4\u30FC\u30C9\u3067", "d9juau41awczczp"},      // <sono><supiido><de>
  };
  for (const auto& row : rows) EXPECT_EQ(idn(row.label), "xn--"s + row.punycode);
}

TEST(utf8_to_idn, label_of_ascii_only_gets_no_trailing_delimiter) {
  EXPECT_EQ(idn("-> $1.00 <-"), "-> $1.00 <-");  // the last sample of the RFC ends in one more hyphen
}

TEST(utf8_to_idn, agrees_with_another_implementation_on_random_labels) {
  for (const auto& row : punycode_vectors) EXPECT_EQ(idn(row.label), "xn--"s + row.punycode);
}

TEST(utf8_to_idn, agrees_with_the_method_of_the_rfc_on_random_labels) {
  std::mt19937 random(3492);
  auto draw = [&](uint32_t below) { return static_cast<uint32_t>(random() % below); };
  for (int i = 0; i < 3000; i++) {
    code_points label(draw(200));
    const uint32_t spread = 1u << draw(22);
    const uint32_t first = draw(0x200000);
    for (auto& c : label) {
      c = draw(3) == 0 ? 'a' + draw(26) : (first + draw(spread)) % 0x200000;
      if (c == 0 || c == '.' || (c >= 0xD800 && c < 0xE000)) c = 0xE9;
    }
    const bool is_ascii = std::all_of(label.begin(), label.end(), [](uint32_t c) { return c < 0x80; });
    ASSERT_EQ(idn(utf8(label)), (is_ascii ? "" : "xn--") + encode_punycode(label)) << "label " << i;
  }
}

TEST(utf8_to_idn, invalid_byte_is_encoded_as_the_code_point_ffffffff) {
  const uint32_t bad = 0xFFFFFFFF;
  const struct {
    std::string label;
    code_points expected;
  } rows[] = {
      {"\x80", {bad}},
      {"\xff\xfe", {bad, bad}},
      {"a\x80z", {'a', bad, 'z'}},
      {"\xc3", {bad}},
      {"\xc3(", {bad, '('}},
      {"\xc0\x80", {bad, bad}},
      {"\xed\xa0\x80", {bad, bad, bad}},
      {"\xf0\x9f\x98\u00E9", {bad, bad, bad, 0xE9}},
      {"\u00E9\xf8\u20AC\xbf\U0001F600", {0xE9, bad, 0x20AC, bad, 0x1F600}},
      {"\xf4\x90\x80\x80", {0x110000}},
      {"\xf7\xbf\xbf\xbf", {0x1FFFFF}},
  };
  for (const auto& row : rows) EXPECT_EQ(idn(row.label), "xn--" + encode_punycode(row.expected));
}

TEST(utf8_to_idn, dot_after_a_cut_sequence_ends_the_label) {
  const std::string bad = encode_punycode({0xFFFFFFFF});
  EXPECT_EQ(idn("\xc3.\xa9"), "xn--" + bad + ".xn--" + bad);
}

TEST(utf8_to_idn, agrees_with_the_method_of_the_rfc_on_random_bytes) {
  std::mt19937 random(2);
  for (int i = 0; i < 3000; i++) {
    std::string label(random() % 100, '\0');
    for (char& c : label) c = static_cast<char>(0x2F + random() % 0xD1);  // no zero byte and no dot
    code_points decoded;
    for (size_t at = 0; at < label.size();) decoded.push_back(base::utf8_decode(label, at));
    const std::string encoded = encode_punycode(decoded);
    ASSERT_EQ(idn(label), encoded == label ? label : "xn--" + encoded) << testing::PrintToString(label);
  }
}

TEST(utf8_to_idn, hostile_label_of_100_kb_decodes_back) {
  code_points label = distinct(34000, 0x800);
  std::shuffle(label.begin(), label.end(), std::mt19937(100));
  ASSERT_GE(utf8(label).size(), 100000u);
  const std::string encoded = idn(utf8(label));
  ASSERT_EQ(encoded.substr(0, 4), "xn--");
  EXPECT_EQ(decode_punycode(encoded.substr(4)), label);
}

TEST(utf8_to_idn, hostile_label_with_the_code_points_in_reverse_decodes_back) {
  code_points label = distinct(34000, 0x800);
  std::reverse(label.begin(), label.end());
  EXPECT_EQ(decode_punycode(idn(utf8(label)).substr(4)), label);
}

TEST(utf8_to_idn, label_of_one_repeated_code_point_decodes_back) {
  const code_points label(50000, 0xE9);
  EXPECT_EQ(decode_punycode(idn(utf8(label)).substr(4)), label);
}

TEST(utf8_to_idn, host_of_very_many_labels_keeps_them_all) {
  std::string host, expected;
  for (int i = 0; i < 20000; i++) {
    host += "a.\u00FC.";
    expected += "a.xn--tda.";
  }
  EXPECT_EQ(idn(host), expected);
}

TEST(punycode_model, encodes_and_decodes_the_random_labels) {
  for (const auto& row : punycode_vectors) {
    const code_points decoded = decode_punycode(row.punycode);
    EXPECT_EQ(utf8(decoded), row.label);
    EXPECT_EQ(encode_punycode(decoded), row.punycode);
  }
}
