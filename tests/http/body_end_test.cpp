// What a head says about the end of its body. The expected values are those of RFC 9112, section 6, and of
// the rules in the header.

#include "http/body_end.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

// How GoogleTest prints a body_end.
inline void PrintTo(body_end end, std::ostream* out) {
  const char* const names[] = {"by_length", "by_last_chunk", "unknown"};
  *out << names[static_cast<int>(end)];
}

namespace {

const std::string request_line = "POST / HTTP/1.1\r\n";

// Each entry holds lines of a head, without the last CR LF. It is tried alone, and with other lines before
// and after it.
void expect_end(body_end wanted, const std::vector<std::string>& lines) {
  const std::string around[] = {"", "Host: a\r\n", "Content-Length: 5\r\n", "a\r\n",
                                "X: transfer-encoding: y\r\n"};
  for (const std::string& entry : lines) {
    for (const std::string& other : around) {
      SCOPED_TRACE(testing::PrintToString(other + entry));
      EXPECT_EQ(find_body_end(request_line + entry + "\r\n"), wanted);
      EXPECT_EQ(find_body_end(request_line + other + entry + "\r\n"), wanted);
      EXPECT_EQ(find_body_end(request_line + entry + "\r\n" + other), wanted);
    }
  }
}

}  // namespace

TEST(body_end, head_without_a_transfer_encoding_leaves_it_to_the_length) {
  expect_end(body_end::by_length,
             {"Host: a", "Content-Length: 5", "Upgrade: websocket\r\nConnection: Upgrade"});
  EXPECT_EQ(find_body_end(request_line), body_end::by_length);
  EXPECT_EQ(find_body_end("GET / HTTP/1.0\r\nHost: a\r\n"), body_end::by_length);
  EXPECT_EQ(find_body_end("CONNECT a:1 HTTP/1.1\r\n"), body_end::by_length);
  EXPECT_EQ(find_body_end(""), body_end::by_length);
}

TEST(body_end, chunked_is_found_in_any_letter_case) {
  expect_end(body_end::by_last_chunk, {"Transfer-Encoding: chunked", "transfer-encoding: chunked",
                                       "TRANSFER-ENCODING: CHUNKED", "tRANSFER-eNCODING: cHUNKED"});
}

TEST(body_end, blanks_around_the_value_do_not_count) {
  expect_end(body_end::by_last_chunk, {"Transfer-Encoding:chunked", "Transfer-Encoding: \t chunked",
                                       "Transfer-Encoding: chunked ", "Transfer-Encoding:\tchunked\t"});
}

TEST(body_end, last_of_several_codings_counts) {
  expect_end(body_end::by_last_chunk,
             {"Transfer-Encoding: gzip, chunked", "Transfer-Encoding: gzip,chunked",
              "Transfer-Encoding: x-a ,\tdeflate , Chunked", "Transfer-Encoding: identity, chunked"});
  expect_end(body_end::unknown, {"Transfer-Encoding: chunked, gzip", "Transfer-Encoding: chunked, identity",
                                 "Transfer-Encoding: gzip, chunked, gzip", "Transfer-Encoding: gzip",
                                 "Transfer-Encoding: identity"});
}

TEST(body_end, several_lines_are_one_list) {
  expect_end(body_end::by_last_chunk, {"Transfer-Encoding: gzip\r\nTransfer-Encoding: chunked",
                                       "transfer-encoding: a\r\nX: y\r\nTRANSFER-ENCODING: b, chunked"});
  expect_end(body_end::unknown, {"Transfer-Encoding: chunked\r\nTransfer-Encoding: gzip",
                                 "Transfer-Encoding: chunked\r\nTransfer-Encoding: identity",
                                 "Transfer-Encoding: chunked\r\nX: y\r\nTransfer-Encoding:"});
}

TEST(body_end, chunked_may_stand_there_only_once) {
  expect_end(body_end::unknown, {"Transfer-Encoding: chunked, chunked",
                                 "Transfer-Encoding: chunked\r\nTransfer-Encoding: chunked"});
}

TEST(body_end, content_length_beside_chunked_is_overridden) {
  expect_end(body_end::by_last_chunk, {"Content-Length: 0\r\nTransfer-Encoding: chunked",
                                       "Transfer-Encoding: chunked\r\nContent-Length: 99999999999999999999"});
}

TEST(body_end, element_that_is_no_coding_is_doubtful) {
  expect_end(
      body_end::unknown,
      {"Transfer-Encoding:", "Transfer-Encoding: ", "Transfer-Encoding: ,chunked",
       "Transfer-Encoding: chunked,", "Transfer-Encoding: gzip,,chunked", "Transfer-Encoding: xchunked",
       "Transfer-Encoding: chunkedx", "Transfer-Encoding: chunke", "Transfer-Encoding: gzip chunked",
       "Transfer-Encoding: chunked chunked", "Transfer-Encoding: chunked;a=b",
       "Transfer-Encoding: gzip;q=1, chunked", "Transfer-Encoding: \"chunked\"",
       "Transfer-Encoding: a;b=\", chunked", "Transfer-Encoding: =chunked", "Transfer-Encoding: \x0b chunked",
       "Transfer-Encoding: chunked\x0c", std::string("Transfer-Encoding: chunked\0", 27),
       "Transfer-Encoding: chunk\xc3\xa9"});
}

TEST(body_end, lines_with_a_similar_name_or_value_are_not_the_header) {
  expect_end(body_end::by_length,
             {"Transfer-Encoding-X: chunked", "Transfer-Encodings: chunked", "X-Transfer-Encoding: chunked",
              "Transfer_Encoding: chunked", "Transfer-Encodin: chunked", "ransfer-encoding: chunked",
              "X: Transfer-Encoding: chunked", "X: a, transfer-encoding", "X:Transfer-Encoding:chunked"});
  EXPECT_EQ(find_body_end("Transfer-Encoding: chunked HTTP/1.1\r\nHost: a\r\n"), body_end::by_length);
  EXPECT_EQ(find_body_end("GET /transfer-encoding HTTP/1.1\r\nHost: a\r\n"), body_end::by_length);
  EXPECT_EQ(find_body_end("GET transfer-encoding: HTTP/1.1\r\nHost: a\r\n"), body_end::by_length);
}

TEST(body_end, name_is_followed_directly_by_its_colon) {
  expect_end(body_end::unknown,
             {"Transfer-Encoding : chunked", "Transfer-Encoding\t: chunked", "Transfer-Encoding chunked",
              "Transfer-Encoding", "Transfer-Encoding\x0b: chunked", "Transfer-Encoding=chunked",
              "Transfer-Encoding\xa0: chunked", std::string("Transfer-Encoding\0: chunked", 27)});
  EXPECT_EQ(find_body_end(request_line + "Transfer-Encoding"), body_end::unknown);  // this is not even a line
}

TEST(body_end, name_that_does_not_begin_its_line_is_doubtful) {
  expect_end(body_end::unknown, {" Transfer-Encoding: chunked", "\tTransfer-Encoding: chunked",
                                 "X: y\r\n Transfer-Encoding: chunked", "\x0bTransfer-Encoding: chunked",
                                 ": Transfer-Encoding: chunked", "\xa0Transfer-Encoding: chunked",
                                 std::string("\0Transfer-Encoding: chunked", 27)});
}

TEST(body_end, name_after_a_bare_cr_or_lf_is_doubtful) {
  expect_end(body_end::unknown, {"X: y\nTransfer-Encoding: chunked", "X: y\rTransfer-Encoding: chunked",
                                 "X: y\n Transfer-Encoding: chunked", "X: y\n\rTransfer-Encoding: chunked"});
  EXPECT_EQ(find_body_end("GET / HTTP/1.1\nTransfer-Encoding: chunked\r\n"), body_end::unknown);
}

TEST(body_end, bare_cr_or_lf_anywhere_makes_the_head_doubtful) {
  expect_end(
      body_end::unknown,
      {"Transfer-Encoding: chunked\n", "Transfer-Encoding: chunked\r", "Transfer-Encoding: chunked\nX: y",
       "Transfer-Encoding: chunked\r\nX: y\nZ: z", "X: y\rz\r\nTransfer-Encoding: chunked",
       "X: y\r\r\nTransfer-Encoding: chunked", "X: y\r\n\nTransfer-Encoding: chunked",
       "Transfer-Encoding: chunked\r\n\nX: y", "Transfer-Encoding: chunked\r\n\rX: y"});
  // In a head without the name, these bytes do not matter.
  expect_end(body_end::by_length, {"X: y\nZ: z", "X: y\rz"});
}

TEST(body_end, continued_line_in_a_head_with_a_coding_makes_the_end_unknown) {
  expect_end(body_end::unknown,
             {"Transfer-Encoding: chunked\r\n , identity", "Transfer-Encoding:\r\n chunked",
              "Transfer-Encoding: gzip,\r\n\tchunked", "X: y\r\n z\r\nTransfer-Encoding: chunked",
              "Transfer-Encoding: chunked\r\n\t, identity", "X: y\r\n\tz\r\nTransfer-Encoding: chunked",
              // The Connection line is not passed on, so its continuation then continues the coding.
              "Transfer-Encoding: chunked\r\nConnection: x\r\n , identity"});
  expect_end(body_end::by_length, {"X: y\r\n z"});
}

TEST(body_end, only_http_1_1_has_transfer_codings) {
  const std::string lines = "\r\nTransfer-Encoding: chunked\r\n";
  EXPECT_EQ(find_body_end("X-ODD * HTTP/1.1" + lines), body_end::by_last_chunk);
  for (const char* line :
       {"POST / HTTP/1.0", "POST / HTTP/1.2", "POST / HTTP/2", "POST / http/1.1", "POST / HTTP/1.1 ",
        "POST  / HTTP/1.1", "POST /  HTTP/1.1", "POST / x HTTP/1.1", "POST\t/ HTTP/1.1", "POST /", "POST",
        "HTTP/1.1", " / HTTP/1.1", "POST  HTTP/1.1", "", " ", "  "})
    EXPECT_EQ(find_body_end(line + lines), body_end::unknown) << line;
}

TEST(body_end, connect_has_no_body) {
  EXPECT_EQ(find_body_end("CONNECT a:1 HTTP/1.1\r\nTransfer-Encoding: chunked\r\n"), body_end::unknown);
  EXPECT_EQ(find_body_end("CONNECTS a:1 HTTP/1.1\r\nTransfer-Encoding: chunked\r\n"),
            body_end::by_last_chunk);
}

// The search does not look at every byte.
TEST(body_end, name_is_found_wherever_it_stands) {
  for (size_t before = 0; before < 60; before++) {
    for (const char* filler : {"x", "g", "n", "-", "E", "\xff"}) {
      std::string line = "X: ";
      for (size_t i = 0; i < before; i++) line += filler;
      EXPECT_EQ(find_body_end(request_line + line + "\r\nTransfer-Encoding: chunked\r\nX: y\r\n"),
                body_end::by_last_chunk);
      EXPECT_EQ(find_body_end(request_line + line + "Transfer-Encodin\r\nTransfer-Encoding: a\r\n"),
                body_end::unknown);
    }
  }
}
