// The opening handshake (RFC 6455, section 4.2), accepted and refused.

#include <gtest/gtest.h>

#include "tests/http/upgraded_connection.h"

namespace {

const char rfc_key[] = "dGhlIHNhbXBsZSBub25jZQ==";

std::string accepted(const std::string& accept, const std::string& more = "Content-Length: 0\r\n") {
  return "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
         "Sec-WebSocket-Accept: " +
         accept + "\r\n" + more + "\r\n";
}

const std::string refused =
    "HTTP/1.1 400 Bad Request\r\nSec-WebSocket-Version: 13\r\nContent-Length: 0\r\n\r\n";

std::unique_ptr<recorder> after(const std::string& bytes) {
  auto c = std::make_unique<recorder>();
  c->stays_upgraded = true;
  receive(*c, bytes);
  return c;
}

}  // namespace

TEST(websocket_handshake, of_the_rfc_example_is_accepted_however_it_is_cut) {
  console quiet;
  for (const chunks& delivery : every_delivery(rfc_handshake + short_frame(fin | text, "Hello"))) {
    auto c = std::make_unique<recorder>();
    c->stays_upgraded = true;
    receive_all(*c, delivery);
    EXPECT_EQ(c->events.front(), "upgrade") << "in place of on_headers";
    EXPECT_EQ(c->events.back(), "message Hello");
    EXPECT_EQ(c->times("headers") + c->times("request"), 0);
    EXPECT_EQ(c->at_headers, "{ \"GET\", \"/chat\", \"HTTP/1.1\", \"/chat\", \"\", \"\" }");
    EXPECT_EQ(send_everything(*c), accepted("s3pPLMBiTxaQ9kYGzzhZRbK+xOo=") + "\x81\x05Hello");
    EXPECT_TRUE(send_once(*c).stays);
  }
  EXPECT_EQ(quiet.text(), "");
}

TEST(websocket_handshake, accept_value_is_made_from_the_key_as_it_was_sent) {
  const struct {
    std::string key, accept;
  } cases[] = {
      {"x3JJHMbDL1EzLkh9GBhXDw==", "HSmrc0sMlYUkAGmm5OPpG2HaGWk="},
      {"abc", "zwKd5BnoWxQ6GxTxxSmBSHGHX9M="},
      {" abc ", "yT3M7ZZMryvEfBchJCw3ZJZMw78="},
      {std::string(200, 'k'), "HXr7Nbki1tHdEVpq+a7G7IV4VJU="},
  };
  for (const auto& t : cases)
    EXPECT_EQ(send_everything(*after(handshake(t.key, "13"))), accepted(t.accept)) << t.key;
}

TEST(websocket_handshake, version_13_is_a_number_of_32_bits_and_any_other_is_refused) {
  const struct {
    std::string version;
    bool accepts;
  } cases[] = {{"13", true},         {" 13", true},  {"+13", true},  {"013", true}, {"13, 8", true},
               {"4294967309", true}, {"8", false},   {"14", false},  {"1", false},  {"", false},
               {"x13", false},       {"-13", false}, {"0x0D", false}};
  for (const auto& t : cases) {
    auto c = after(handshake(rfc_key, t.version));
    EXPECT_EQ(c->upgraded, t.accepts) << t.version;
    EXPECT_EQ(send_everything(*c), t.accepts ? accepted("s3pPLMBiTxaQ9kYGzzhZRbK+xOo=") : refused)
        << t.version;
  }
}

TEST(websocket_handshake, without_a_key_or_a_version_is_refused) {
  const std::string start = "GET / HTTP/1.1\r\nUpgrade: websocket\r\n";
  for (const std::string& request : {handshake("", "13"), start + "Sec-WebSocket-Version: 13\r\n\r\n",
                                     start + "Sec-WebSocket-Key: " + rfc_key + "\r\n\r\n", start + "\r\n"}) {
    auto c = after(request);
    EXPECT_FALSE(c->upgraded);
    EXPECT_EQ(send_everything(*c), refused);
  }
}

TEST(websocket_handshake, when_accepted_lifts_the_time_out_and_the_limit_before_on_upgrade) {
  struct : http_connection {
    std::string seen;
    int timeout_seen = 0;
    void on_upgrade() override {
      seen = all_fields(*this);
      timeout_seen = timeout;
    }
  } c;
  receive(c, rfc_handshake + "abc");
  auto expected = std::make_unique<http_connection>();
  expected->headers_received = expected->written = expected->upgraded = true;
  expected->head = rfc_handshake.substr(0, rfc_handshake.size() - 2);
  expected->response_parts.push(new http_connection::response_part);
  expected->max_request_length = 0;
  expected->request_length = static_cast<int32_t>(rfc_handshake.size() + 3);
  expected->content_received = 3;
  expected->method = "GET";
  expected->target = expected->path = "/chat";
  expected->version = "HTTP/1.1";
  EXPECT_EQ(c.seen, all_fields(*expected));
  EXPECT_EQ(c.timeout_seen, -1);
  EXPECT_EQ(c.content, "abc") << "too little for a frame";
  EXPECT_TRUE(c.keep_alive);
}

TEST(websocket_handshake, answer_has_the_extra_headers) {
  auto c = std::make_unique<recorder>();
  c->response_headers = "X: 1\r\n";
  receive(*c, rfc_handshake);
  EXPECT_EQ(send_everything(*c), accepted("s3pPLMBiTxaQ9kYGzzhZRbK+xOo=", "Content-Length: 0\r\nX: 1\r\n"));
}

TEST(websocket_handshake, answer_to_http_1_0_has_no_length_and_no_frame_is_read) {
  auto c = after(handshake(rfc_key, "13", "HTTP/1.0") + short_frame(fin | text, "Hello"));
  EXPECT_TRUE(c->upgraded);
  EXPECT_EQ(c->content, short_frame(fin | text, "Hello"));
  EXPECT_EQ(send_everything(*c), accepted("s3pPLMBiTxaQ9kYGzzhZRbK+xOo=", ""));
  EXPECT_FALSE(send_once(*c).stays);
}

TEST(websocket_handshake, default_on_upgrade_closes_once_the_answer_is_sent) {
  console quiet;
  auto c = std::make_unique<http_connection>();
  receive(*c, rfc_handshake + short_frame(fin | text, "Hello"));
  EXPECT_FALSE(c->keep_alive);
  EXPECT_EQ(c->timeout, 0);
  EXPECT_TRUE(c->upgraded);
  EXPECT_EQ(c->content, short_frame(fin | text, "Hello")) << "gathered, never read";
  EXPECT_EQ(send_everything(*c), accepted("s3pPLMBiTxaQ9kYGzzhZRbK+xOo="));
  EXPECT_FALSE(send_once(*c).stays);
  EXPECT_EQ(quiet.text(), "");
}

TEST(websocket_handshake, refused_leaves_a_request_that_completes_as_usual) {
  auto c = std::make_unique<recorder>();
  receive_all(*c, {"GET / HTTP/1.1\r\nUpgrade: websocket\r\nContent-Length: 5\r\n\r\nhel", "lo"});
  EXPECT_EQ(c->events, (std::vector<std::string>{"data hel", "data lo", "request"}));
  EXPECT_NE(c->at_request.find("written 1"), std::string::npos);
  EXPECT_EQ(c->timeout, 10);
  EXPECT_FALSE(c->upgraded);
  EXPECT_EQ(send_everything(*c), refused);
  EXPECT_TRUE(send_once(*c).stays);
}

TEST(websocket_handshake, refused_makes_the_default_handler_write_twice) {
  console screen;
  auto c = std::make_unique<http_connection>();
  receive(*c, handshake(rfc_key, "8"));
  EXPECT_EQ(screen.text(), "Warning! Double write() detected!\n");
  EXPECT_EQ(c->max_request_length, 104857600);
  receive(*c, "HEAD / HTTP/1.1\r\n\r\n");
  EXPECT_EQ(send_once(*c).bytes, refused);
  EXPECT_EQ(send_once(*c).bytes, "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: 37\r\n\r\n");
}

TEST_F(upgraded_connection, has_no_way_back_to_http) {
  const std::string request = "GET / HTTP/1.1\r\n\r\n";
  receive(c(), request);
  EXPECT_EQ(c().events, std::vector<std::string>{"data " + request});
  expect_fault("Warning! Incoming frame has no mask.\n", request);
}

TEST_F(upgraded_connection, has_no_limit_on_the_bytes_received) {
  c().request_length = c().content_received = INT32_MAX;
  for (int i = 0; i < 3; i++) receive(c(), short_frame(fin | text, "x"));
  EXPECT_EQ(messages(), (std::vector<std::string>{"x", "x", "x"}));
  EXPECT_EQ(c().request_length, INT32_MIN + 20);
  EXPECT_EQ(console_.text(), "");
}
