// Where a chunked body ends, and which bytes make it malformed. The expected values are those of the grammar
// in RFC 9112, section 7.1, and of the rules in the header.

#include "http/chunked_body.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/http/delivery.h"

namespace {

enum class states { open, ended, malformed };

struct outcome {
  states state;
  size_t used;  // bytes that belong to the body

  bool operator==(const outcome& other) const { return state == other.state && used == other.used; }
};

std::ostream& operator<<(std::ostream& out, const outcome& o) {
  const char* const names[] = {"open", "ended", "malformed"};
  return out << names[static_cast<int>(o.state)] << " after " << o.used;
}

states state_of(const chunked_body& body) {
  EXPECT_FALSE(body.has_ended() && body.is_malformed());
  return body.has_ended() ? states::ended : body.is_malformed() ? states::malformed : states::open;
}

// Parses the pieces, each in memory that ends at an unreadable page.
outcome parse(const chunks& pieces) {
  chunked_body body;
  size_t used = 0;
  for (const std::string& piece : pieces) {
    char* place = bytes_before_unreadable_page(piece.size());
    memcpy(place, piece.data(), piece.size());
    used += body.parse(place, piece.size());
  }
  return {state_of(body), used};
}

// Expects the same outcome for every way of cutting `bytes`.
void expect_outcome(const std::string& bytes, const outcome& wanted) {
  for (const chunks& pieces : every_delivery(bytes)) {
    SCOPED_TRACE(testing::PrintToString(pieces));
    ASSERT_EQ(parse(pieces), wanted);
  }
}

// Expects that `bytes` are a complete body, and that nothing after them belongs to it.
void expect_whole(const std::string& bytes) {
  expect_outcome(bytes, {states::ended, bytes.size()});
  for (const char* behind : {"\r\n", "0\r\n\r\n", "GET / HTTP/1.1\r\n\r\n"})
    expect_outcome(bytes + behind, {states::ended, bytes.size()});
}

// Expects that the last byte makes the body malformed, and no byte before it. Everything that follows belongs
// to the body, even what looks like its end.
void expect_malformed_by_last_byte(const std::string& bytes) {
  const std::string before = bytes.substr(0, bytes.size() - 1);
  expect_outcome(before, {states::open, before.size()});
  expect_outcome(bytes, {states::malformed, bytes.size()});
  const std::string more = bytes + "\r\n0\r\n\r\nGET / HTTP/1.1\r\n\r\n";
  expect_outcome(more, {states::malformed, more.size()});
}

// Expects that each string in `wrong` makes the body malformed if it follows `prefix`.
void expect_malformed(const std::string& prefix, const std::vector<std::string>& wrong) {
  for (const std::string& bytes : wrong) expect_malformed_by_last_byte(prefix + bytes);
}

std::string byte(int value) {
  return std::string(1, static_cast<char>(value));
}

// All bytes except the allowed ones.
std::vector<std::string> all_but(const std::string& allowed) {
  std::vector<std::string> bytes;
  for (int value = 0; value < 256; value++) {
    if (allowed.find(static_cast<char>(value)) == std::string::npos) bytes.push_back(byte(value));
  }
  return bytes;
}

const std::string digits = "0123456789abcdefABCDEF";
const std::string text = [] {
  std::string all = "\t";
  for (int value = 0x20; value < 256; value++) {
    if (value != 0x7F) all += static_cast<char>(value);
  }
  return all;
}();
const std::string token =
    "!#$%&'*+-.^_`|~0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";  // RFC 9110, 5.6.2

}  // namespace

TEST(chunked_body, ends_with_the_empty_line_after_the_last_chunk) {
  for (const char* body :
       {"0\r\n\r\n", "5\r\nhello\r\n0\r\n\r\n", "1\r\na\r\n2\r\nbc\r\n3\r\ndef\r\n0\r\n\r\n"})
    expect_whole(body);
}

TEST(chunked_body, nothing_is_read_at_first) {
  expect_outcome("", {states::open, 0});
}

TEST(chunked_body, chunk_holds_any_bytes) {
  expect_whole("19\r\n\r\n0\r\n\r\nGET / HTTP/1.1\r\n\r\n\r\n0\r\n\r\n");
  std::string all;
  for (int value = 0; value < 256; value++) all += static_cast<char>(value);
  expect_whole("100\r\n" + all + "\r\n0\r\n\r\n");
}

TEST(chunked_body, size_is_hexadecimal_in_either_letter_case) {
  for (const auto& [size, length] : {std::pair("a", 10), std::pair("A", 10), std::pair("1f", 31),
                                     std::pair("1F", 31), std::pair("aB", 171), std::pair("00fF", 255)})
    expect_whole(std::string(size) + "\r\n" + std::string(static_cast<size_t>(length), '0') +
                 "\r\n0\r\n\r\n");
}

TEST(chunked_body, zeros_in_front_of_a_size_change_nothing) {
  expect_whole("0000000000000000000000000000000005\r\nhello\r\n00000000000000000000\r\n\r\n");
}

TEST(chunked_body, size_begins_with_a_digit) {
  expect_malformed("", all_but(digits));
  expect_malformed("5\r\nhello\r\n", all_but(digits));
}

TEST(chunked_body, size_goes_on_with_digits_blanks_an_extension_or_the_end_of_the_line) {
  expect_malformed("5", all_but(digits + " \t;\r"));
  expect_malformed("0", all_but(digits + " \t;\r"));
}

TEST(chunked_body, size_of_2_to_the_63_or_more_is_malformed) {
  expect_outcome("7fffffffffffffff\r\nx", {states::open, 19});
  expect_outcome("00007FFFFFFFFFFFFFFF\r\nx", {states::open, 23});
  expect_malformed("", {"8000000000000000", "ffffffffffffffff", "10000000000000000", "10000000000000005",
                        "00008000000000000000", "FFFFFFFFFFFFFFFF"});
}

TEST(chunked_body, size_above_4_gib_is_not_cut_short) {
  chunked_body body;
  std::string head = "100000005\r\n";
  body.parse(head.data(), head.size());
  const std::string mebibyte(1 << 20, '0');
  for (int i = 0; i < 4096; i++) ASSERT_EQ(body.parse(mebibyte.data(), mebibyte.size()), mebibyte.size());
  const std::string rest = "12345\r\n0\r\n\r\nbehind";
  EXPECT_EQ(body.parse(rest.data(), rest.size()), rest.size() - 6);
  EXPECT_TRUE(body.has_ended());
}

TEST(chunked_body, blanks_after_a_size_need_an_extension_after_them) {
  for (const char* size : {"5 ;a", "5\t;a=b", "5 \t ; a = b"})
    expect_whole(std::string(size) + "\r\nhello\r\n0 ;\r\n\r\n");
  for (const char* size : {"5 ", "5 \t", "5\t "}) expect_malformed(size, all_but(" \t;"));
}

TEST(chunked_body, extension_may_hold_any_text) {
  expect_whole("5;" + text + "\r\nhello\r\n0;a=\"0\\\"\";b\r\n\r\n");
  expect_whole("5;\r\nhello\r\n0;;\r\n\r\n");
  expect_malformed("5;a", all_but(text + "\r"));
  expect_malformed("0;a", all_but(text + "\r"));
}

TEST(chunked_body, line_of_a_size_ends_with_cr_lf) {
  for (const char* line : {"5", "5;a", "0", "0;a=b"})
    expect_malformed(std::string(line) + "\r", all_but("\n"));
}

TEST(chunked_body, chunk_is_followed_by_cr_lf) {
  expect_malformed("5\r\nhello", all_but("\r"));
  expect_malformed("5\r\nhello\r", all_but("\n"));
}

TEST(chunked_body, trailer_lines_come_before_the_empty_line) {
  expect_whole("0\r\nA:\r\n\r\n");
  expect_whole("5\r\nhello\r\n0\r\nChecksum: 0\r\nx-y: \t z \r\nContent-Length: 7\r\n\r\n");
  expect_whole("0\r\n" + token + ":" + text + "\r\n\r\n");
}

TEST(chunked_body, trailer_line_begins_with_a_name_and_a_colon) {
  expect_malformed("0\r\n", all_but(token + "\r"));
  expect_malformed("0\r\nA", all_but(token + ":"));
  expect_malformed("0\r\nA: b\r\n", all_but(token + "\r"));  // blanks would continue the line
}

TEST(chunked_body, trailer_value_is_text_and_ends_with_cr_lf) {
  expect_malformed("0\r\nA:", all_but(text + "\r"));
  expect_malformed("0\r\nA: b", all_but(text + "\r"));
  expect_malformed("0\r\nA: b\r", all_but("\n"));
  expect_malformed("0\r\n\r", all_but("\n"));
  expect_malformed("0\r\nA: b\r\n\r", all_but("\n"));
}

TEST(chunked_body, request_instead_of_the_empty_line_is_malformed) {
  expect_malformed_by_last_byte("5\r\nhello\r\n0\r\nGET ");
}

TEST(chunked_body, lines_of_8192_bytes_are_the_longest) {
  const std::string extension = "5;" + std::string(8190, 'x');
  const std::string trailer = "A:" + std::string(8190, 'x');
  const std::string zeros(8192, '0');
  const std::vector<std::string> whole = {extension + "\r\nhello\r\n0\r\n\r\n",
                                          zeros + "\r\n" + trailer + "\r\n" + trailer + "\r\n\r\n"};
  for (const std::string& bytes : whole) {
    EXPECT_EQ(parse({bytes}), (outcome{states::ended, bytes.size()}));
    EXPECT_EQ(parse(byte_by_byte(bytes)), (outcome{states::ended, bytes.size()}));
  }
  const std::vector<std::string> too_long = {extension + "x",
                                             zeros + "0",
                                             "0\r\n" + trailer + "x",
                                             "0\r\nA: b\r\n" + trailer + "x",
                                             "5;" + std::string(8190, ' ') + ";",
                                             "5" + std::string(8192, ' '),
                                             "0\r\n" + std::string(8193, 'a')};
  for (const std::string& bytes : too_long) {
    const std::string before = bytes.substr(0, bytes.size() - 1);
    EXPECT_EQ(parse({before}), (outcome{states::open, before.size()}));
    for (const chunks& pieces :
         {chunks{bytes}, byte_by_byte(bytes), chunks{before, bytes.substr(before.size())}})
      EXPECT_EQ(parse(pieces), (outcome{states::malformed, bytes.size()}));
  }
}

TEST(chunked_body, trailer_of_any_number_of_lines_ends) {
  std::string trailer;
  for (int i = 0; i < 20000; i++) trailer += "name: a value of some length\r\n";
  EXPECT_EQ(parse({"0\r\n" + trailer + "\r\n", "x"}), (outcome{states::ended, trailer.size() + 5}));
}

TEST(chunked_body, body_that_has_ended_takes_nothing_more) {
  EXPECT_EQ(parse({"0\r\n\r\n", "5\r\nhello", "!"}), (outcome{states::ended, 5}));
}
