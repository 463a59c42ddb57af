// write(), redirect() and the default on_request(): the bytes of a response, and when it is refused.

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <stdexcept>

#include "net/sockets.h"
#include "tests/http/delivery.h"
#include "tests/http/recorder.h"
#include "tests/net/child.h"
#include "tests/support/console.h"

namespace {

const std::string double_write = "Warning! Double write() detected!\n";

class http_response : public testing::Test {
 protected:
  http_connection& c() { return *connection_; }

  std::vector<size_t> part_sizes() {
    std::vector<size_t> sizes;
    http_connection::response_part* part = nullptr;
    for (c().response_parts.begin(); c().response_parts.current(part); c().response_parts.next())
      sizes.push_back(part->data.size());
    return sizes;
  }

  // A file with these bytes, positioned at its start.
  static FILE* file_of(const std::string& bytes) {
    FILE* file = tmpfile();
    fwrite(bytes.data(), 1, bytes.size(), file);
    rewind(file);
    return file;
  }

  console console_;

 private:
  std::unique_ptr<http_connection> connection_ = std::make_unique<http_connection>();
};

}  // namespace

TEST_F(http_response, on_a_kept_connection_gets_its_length_the_extra_headers_and_stays) {
  c().response_headers = "Y: 2\r\n";
  c().write("HTTP/1.1 200 OK\r\nX: 1\r\n", "hello");
  EXPECT_EQ(send_everything(c()), "HTTP/1.1 200 OK\r\nX: 1\r\nContent-Length: 5\r\nY: 2\r\n\r\nhello");
  EXPECT_TRUE(send_once(c()).stays);
}

TEST_F(http_response, on_a_closing_connection_has_no_length_and_closes_when_it_is_sent) {
  c().keep_alive = false;
  c().write("HTTP/1.1 200 OK\r\nX: 1\r\n", "hello");
  const sending last = send_once(c());
  EXPECT_EQ(last.bytes, "HTTP/1.1 200 OK\r\nX: 1\r\n\r\nhello");
  EXPECT_TRUE(last.stays) << "only the next call finds the queue empty";
  const sending end = send_once(c());
  EXPECT_EQ(end.bytes, "");
  EXPECT_FALSE(end.stays);
}

TEST_F(http_response, hang_up_closes_at_once_or_after_the_queued_response) {
  EXPECT_TRUE(send_once(c()).stays) << "it waits for a response";
  c().hang_up();
  EXPECT_FALSE(send_once(c()).stays);
  EXPECT_EQ(c().timeout, 0) << "a client that does not read must not stay";

  c().written = false;
  c().write("HTTP/1.1 200 OK\r\n", "hello");
  c().reset();
  c().hang_up();
  EXPECT_EQ(send_once(c()).bytes, "HTTP/1.1 200 OK\r\n\r\nhello");
  EXPECT_FALSE(send_once(c()).stays);
}

TEST_F(http_response, with_a_file_is_its_head_and_the_announced_bytes) {
  const struct {
    bool keep_alive;
    std::string method, expected;
  } cases[] = {
      {true, "GET", "HTTP/1.1 200 OK\r\nContent-Length: 5\r\nY: 2\r\n\r\n23456"},
      {false, "GET", "HTTP/1.1 200 OK\r\nContent-Length: 5\r\nY: 2\r\n\r\n23456"},
      {true, "HEAD", "HTTP/1.1 200 OK\r\nContent-Length: 5\r\nY: 2\r\n\r\n"},
  };
  for (const auto& t : cases) {
    c().reset();
    c().keep_alive = t.keep_alive;
    c().method = t.method;
    c().response_headers = "Y: 2\r\n";
    FILE* file = file_of("0123456789");
    const int descriptor = fileno(file);
    fseek(file, 2, SEEK_SET);
    c().write_file("HTTP/1.1 200 OK\r\n", file, 5);
    EXPECT_TRUE(c().written);
    EXPECT_EQ(send_everything(c()), t.expected);
    EXPECT_EQ(fcntl(descriptor, F_GETFD), -1) << "closed";
    EXPECT_EQ(send_once(c()).stays, t.keep_alive);
  }
}

TEST_F(http_response, with_an_empty_file_is_its_head) {
  FILE* file = file_of("grown since");
  const int descriptor = fileno(file);
  c().write_file("HTTP/1.1 200 OK\r\n", file, 0);
  EXPECT_EQ(fcntl(descriptor, F_GETFD), -1) << "closed at once";
  EXPECT_EQ(send_everything(c()), "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n");
  EXPECT_EQ(c().response_parts.count, 0);
}

TEST_F(http_response, with_a_file_is_dropped_and_closes_the_file_if_it_is_the_second) {
  c().write("HTTP/1.1 400 Bad Request\r\n", "");
  FILE* file = file_of("0123456789");
  const int descriptor = fileno(file);
  c().write_file("HTTP/1.1 200 OK\r\n", file, 10);
  EXPECT_EQ(console_.text(), double_write);
  EXPECT_EQ(send_everything(c()), "HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\n\r\n");
  EXPECT_EQ(fcntl(descriptor, F_GETFD), -1) << "closed";
}

TEST_F(http_response, after_a_hang_up_is_refused) {
  c().hang_up();
  c().write("HTTP/1.1 200 OK\r\n", "hello");
  EXPECT_EQ(console_.text(), double_write);
  EXPECT_EQ(c().response_parts.count, 0);
}

TEST_F(http_response, length_is_added_only_when_neither_length_nor_transfer_coding_is_in_the_head) {
  using namespace std::string_literals;
  const struct {
    bool keep_alive;
    std::string method, head, extra, body, expected;
  } cases[] = {
      {true, "GET", "S\r\n", "", "", "S\r\nContent-Length: 0\r\n\r\n"},
      {true, "", "", "", "a\0b"s, "Content-Length: 3\r\n\r\na\0b"s},
      {false, "", "", "", "", "\r\n"},
      {true, "GET", "S\r\nCONTENT-length: 9\r\n", "", "x", "S\r\nCONTENT-length: 9\r\n\r\nx"},
      {true, "GET", "S\r\ntransfer-ENCODING: chunked\r\n", "", "x",
       "S\r\ntransfer-ENCODING: chunked\r\n\r\nx"},
      {true, "GET", "S\r\nContent-Length: \r\n", "", "x",
       "S\r\nContent-Length: \r\nContent-Length: 1\r\n\r\nx"},
      {true, "GET", "S\r\nContent-Length-Hint: 9\r\n", "", "x", "S\r\nContent-Length-Hint: 9\r\n\r\nx"},
      {true, "GET", "S\r\nX-Content-Length: 9\r\n", "", "x",
       "S\r\nX-Content-Length: 9\r\nContent-Length: 1\r\n\r\nx"},
      {true, "GET", "Content-Length: 9\r\n", "", "x", "Content-Length: 9\r\nContent-Length: 1\r\n\r\nx"},
      {true, "GET", "S\r\n", "Content-Length: 9\r\n", "x",
       "S\r\nContent-Length: 1\r\nContent-Length: 9\r\n\r\nx"},
      {true, "HEAD", "S\r\n", "E: 1\r\n", "hello", "S\r\nContent-Length: 5\r\nE: 1\r\n\r\n"},
      {false, "HEAD", "S\r\n", "", "hello", "S\r\n\r\n"},
      {true, "HEAD", "S\r\nTransfer-Encoding: chunked\r\n", "", "x",
       "S\r\nTransfer-Encoding: chunked\r\n\r\n"},
      {true, "head", "S\r\n", "", "x", "S\r\nContent-Length: 1\r\n\r\nx"},
      {true, "HEADX", "S\r\n", "", "x", "S\r\nContent-Length: 1\r\n\r\nx"},
  };
  for (const auto& t : cases) {
    auto each = std::make_unique<http_connection>();
    each->keep_alive = t.keep_alive;
    each->method = t.method;
    each->response_headers = t.extra;
    each->write(t.head, t.body);
    EXPECT_EQ(send_everything(*each), t.expected);
    EXPECT_EQ(send_once(*each).stays, t.keep_alive);
    EXPECT_EQ(each->response_headers, t.extra) << "only reset() forgets them";
  }
}

TEST_F(http_response, is_queued_as_bytes_and_marks_the_request_as_answered) {
  EXPECT_FALSE(c().written);
  c().write("S\r\n", "x");
  EXPECT_TRUE(c().written);
  ASSERT_EQ(c().response_parts.count, 1);
  const http_connection::response_part* part = c().response_parts.front();
  EXPECT_EQ(part->file, nullptr);
  EXPECT_EQ(part->remaining, -1.0);
  EXPECT_EQ(part->thread, nullptr);
  EXPECT_EQ(part->data, "S\r\nContent-Length: 1\r\n\r\nx");
}

TEST_F(http_response, announces_that_there_is_output_for_its_socket) {
  const int number = 700;  // nothing is open under it
  sockets::add(number);
  c().sock = number;
  ASSERT_FALSE(sockets::has(sockets::ready(), number));
  c().write("S\r\n", "x");
  EXPECT_TRUE(sockets::has(sockets::ready(), number));
  for (fd_set* set : {sockets::all(), sockets::ready()}) FD_CLR(number, set);
}

TEST_F(http_response, second_of_a_request_is_refused) {
  c().write("S\r\n", "first");
  c().write("T\r\n", "second");
  c().redirect("u", true);
  EXPECT_EQ(console_.text(), double_write + double_write);
  EXPECT_EQ(send_everything(c()), "S\r\nContent-Length: 5\r\n\r\nfirst");
}

TEST_F(http_response, refusal_is_not_flushed_to_the_console) {
  EXPECT_TRUE(prints_without_flush([&] {
    c().written = true;
    c().write("S\r\n", "x");
  }));
  EXPECT_EQ(console_.text(), double_write);
}

TEST_F(http_response, after_reset_is_queued_after_the_one_before) {
  c().write("S\r\n", "first");
  c().reset();
  c().write("T\r\n", "second");
  EXPECT_EQ(console_.text(), "");
  EXPECT_EQ(send_once(c()).bytes, "S\r\nContent-Length: 5\r\n\r\nfirst");
  EXPECT_EQ(send_once(c()).bytes, "T\r\nContent-Length: 6\r\n\r\nsecond");
}

TEST_F(http_response, is_cut_into_pieces_of_the_output_buffer) {
  const std::string empty_answer = "S\r\n\r\n";
  const struct {
    size_t total;
    std::vector<size_t> pieces;
  } cases[] = {
      {1048575, {1048575}},
      {1048576, {1048576}},
      {1048577, {1048576, 1}},
      {2097152, {1048576, 1048576}},
      {3000000, {1048576, 1048576, 902848}},
  };
  for (const auto& t : cases) {
    c().reset();
    c().keep_alive = false;
    std::string body(t.total - empty_answer.size(), '\0');
    for (size_t i = 0; i < body.size(); i++) body[i] = static_cast<char>(i * 7 + (i >> 10));
    c().write("S\r\n", body);
    EXPECT_EQ(part_sizes(), t.pieces);
    std::string sent;
    for (size_t piece : t.pieces) {
      const sending one = send_once(c());
      EXPECT_EQ(one.bytes.size(), piece);
      EXPECT_TRUE(one.stays);
      sent += one.bytes;
    }
    EXPECT_TRUE(sent == empty_answer + body);
    EXPECT_FALSE(send_once(c()).stays);
  }
}

TEST_F(http_response, head_that_ends_right_after_a_searched_name_throws_out_of_range) {
  EXPECT_THROW(c().write("S\r\nContent-Length:", "x"), std::out_of_range);
  EXPECT_THROW(c().write("S\r\ntransfer-encoding", "x"), std::out_of_range);
  EXPECT_EQ(c().response_parts.count, 0);
  EXPECT_FALSE(c().written);
  c().keep_alive = false;  // then it looks for neither name
  c().write("S\r\nContent-Length:", "x");
  EXPECT_EQ(send_everything(c()), "S\r\nContent-Length:\r\nx");
}

TEST_F(http_response, fresh_connection_has_nothing_to_send_and_stays) {
  for (bool keep_alive : {true, false}) {
    c().keep_alive = keep_alive;
    int len = 77;
    EXPECT_TRUE(c().on_send(nullptr, 0, &len));
    EXPECT_EQ(len, 77);
  }
}

TEST_F(http_response, sent_completely_leaves_the_length_unchanged_and_keep_alive_decides) {
  c().written = true;
  for (bool keep_alive : {true, false}) {
    c().keep_alive = keep_alive;
    int len = 77;
    EXPECT_EQ(c().on_send(nullptr, 0, &len), keep_alive);
    EXPECT_EQ(len, 77);
  }
}

TEST_F(http_response, permanent_redirect_announces_a_close_that_does_not_come) {
  c().redirect("https://h/?a=\"b\"&<c>", true);
  EXPECT_EQ(send_everything(c()),
            "HTTP/1.1 301 Moved Permanently\r\nLocation: https://h/?a=\"b\"&<c>\r\nConnection: close\r\n"
            "Content-Length: 0\r\n\r\n");
  EXPECT_TRUE(c().keep_alive);
  EXPECT_TRUE(send_once(c()).stays);
}

TEST_F(http_response, permanent_redirect_on_a_closing_connection_has_no_length) {
  c().keep_alive = false;
  c().redirect("/x", true);
  EXPECT_EQ(send_everything(c()),
            "HTTP/1.1 301 Moved Permanently\r\nLocation: /x\r\nConnection: close\r\n\r\n");
  EXPECT_FALSE(send_once(c()).stays);
}

TEST_F(http_response, temporary_redirect_has_a_page_with_the_url_as_it_is) {
  const std::string url = "/'a\"<b>&";
  const std::string page = "<html>This page has temporarily moved to <a href=\"" + url + "\">" + url +
                           "</a><script>window.open('" + url + "');</script></html>";
  c().redirect(url, false);
  EXPECT_EQ(send_everything(c()), "HTTP/1.1 302 Found\r\nLocation: " + url +
                                      "\r\nContent-Type: text/html\r\nContent-Length: " +
                                      std::to_string(page.size()) + "\r\n\r\n" + page);
}

TEST_F(http_response, temporary_redirect_of_a_head_request_has_only_the_length_of_the_page) {
  c().method = "HEAD";
  c().redirect("u", false);
  EXPECT_EQ(send_everything(c()),
            "HTTP/1.1 302 Found\r\nLocation: u\r\nContent-Type: text/html\r\nContent-Length: 99\r\n\r\n");
}

TEST_F(http_response, default_one_shows_the_head_and_the_number_of_body_bytes) {
  receive(c(), "GET /x HTTP/1.1\r\nHost: h\r\n\r\n");
  EXPECT_EQ(send_everything(c()),
            "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: 46\r\n\r\n"
            "GET /x HTTP/1.1\r\nHost: h\r\n\r\n0 bytes of content");
  EXPECT_TRUE(send_once(c()).stays);
}

TEST_F(http_response, default_one_counts_all_bytes_in_full_digits) {
  c().keep_alive = false;
  c().head = "P\r\n";
  c().content = std::string(1234567, '\0');
  c().on_request();
  EXPECT_EQ(send_everything(c()),
            "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\n\r\nP\r\n\r\n1234567 bytes of content");
}

TEST_F(http_response, default_one_answers_each_request_of_a_kept_connection) {
  const std::string get = "GET / HTTP/1.1\r\n\r\n";
  const std::string answer = "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: 36\r\n\r\n" +
                             get + "0 bytes of content";
  receive_all(c(), {get, get});
  EXPECT_FALSE(c().written) << "it waits for the next request while the responses are still queued";
  EXPECT_EQ(send_everything(c()), answer + answer);
}

TEST_F(http_response, default_one_closes_an_http_1_0_connection_and_refuses_to_answer_late_bytes) {
  receive_all(c(), {"HEAD / HTTP/1.0\r\n\r\n", "late"});
  const std::string printed = console_.text();
  EXPECT_EQ(printed.substr(printed.find('\n') + 1), double_write) << "after the line of on_headers";
  EXPECT_EQ(send_everything(c()), "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\n\r\n");
  EXPECT_FALSE(send_once(c()).stays);
}
