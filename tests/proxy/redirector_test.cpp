// Requests to the server that only redirects to HTTPS, through real sockets.

#include "proxy/redirector.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "net/redirect_server.h"
#include "net/sockets.h"
#include "proxy/reverse_proxy.h"
#include "tests/support/client.h"
#include "tests/support/console.h"
#include "tests/support/faults.h"
#include "tests/support/turns.h"

namespace {

struct redirects : testing::Test {
  redirects() {
    silence_reports(front);
    EXPECT_TRUE(front.start());
    out.clear();
  }
  ~redirects() override { redirector::ssl_port() = 443; }

  void turn() { take_turn(front); }

  client connect() {
    client c(front.port);
    EXPECT_TRUE(repeat_until([this] { turn(); }, [this] { return front.connections.count == 1; }));
    return c;
  }

  /* What the server sends until it closes; "" when the connection is reset. */
  std::string read_to_end(client& c) {
    EXPECT_TRUE(repeat_until([&] { turn(); }, [&] { return !c.poll(); })) << "it is still open";
    EXPECT_EQ(front.connections.count, 0);
    return c.is_reset() ? "" : c.received();
  }

  std::string answer_to(const std::string& request) {
    client c = connect();
    c.send(request);
    return read_to_end(c);
  }

  std::string answer_to_get(const std::string& target, const std::string& header_lines) {
    return answer_to("GET " + target + " HTTP/1.1\r\n" + header_lines + "\r\n");
  }

  console out;
  redirect_server<reverse_proxy> front{free_port(), true};
};

/* The response on a connection that HTTP/1.1 keeps alive. */
std::string moved_to(const std::string& location) {
  return "HTTP/1.1 301 Moved Permanently\r\nLocation: " + location +
         "\r\nConnection: close\r\nContent-Length: 0\r\n\r\n";
}

}  // namespace

TEST(redirector, port_is_443_by_default) {
  EXPECT_EQ(redirector::ssl_port(), 443);
}

TEST_F(redirects, port_443_is_not_named) {
  redirector::ssl_port() = 443;
  EXPECT_EQ(answer_to_get("/x", "Host: h:8080\r\n"), moved_to("https://h/x"));
}

TEST_F(redirects, any_other_port_is_named) {
  for (int port : {8443, 1, 444, 65535, 65536, INT32_MAX, 0, -1, INT32_MIN}) {
    redirector::ssl_port() = port;
    EXPECT_EQ(answer_to_get("/x", "Host: h:8080\r\n"), moved_to("https://h:" + std::to_string(port) + "/x"));
  }
}

TEST_F(redirects, port_is_looked_up_for_every_request) {
  client c = connect();
  redirector::ssl_port() = 9443;
  c.send("GET / HTTP/1.1\r\nHost: h\r\n\r\n");
  EXPECT_EQ(read_to_end(c), moved_to("https://h:9443/"));
}

TEST_F(redirects, host_is_cut_at_its_first_colon) {
  const struct {
    const char* host;
    const char* kept;
  } cases[] = {{"h", "h"},
               {"h:80", "h"},
               {"h:", "h"},
               {":80", ""},
               {"a:b:c", "a"},
               {"[::1]:80", "["},
               {"[::1]", "["},
               {"Example.COM", "Example.COM"},
               {"10.0.0.1:8080", "10.0.0.1"},
               {"h h", "h h"}};
  for (const auto& c : cases) {
    const std::string host_line = std::string("Host: ") + c.host + "\r\n";
    EXPECT_EQ(answer_to_get("/x", host_line), moved_to(std::string("https://") + c.kept + "/x")) << c.host;
  }
}

TEST_F(redirects, request_without_a_host_gets_a_location_without_one) {
  EXPECT_EQ(answer_to_get("/x", "Accept: */*\r\n"), moved_to("https:///x"));
  redirector::ssl_port() = 8443;
  EXPECT_EQ(answer_to_get("/x", "Accept: */*\r\n"), moved_to("https://:8443/x"));
}

TEST_F(redirects, host_line_counts_in_any_letter_case) {
  for (const char* name : {"host", "HOST", "hOsT"})
    EXPECT_EQ(answer_to_get("/", std::string(name) + ": h\r\n"), moved_to("https://h/"));
}

TEST_F(redirects, query_is_dropped_and_nothing_else_of_the_target) {
  const struct {
    const char* target;
    const char* path;
  } cases[] = {{"/a?b=1", "/a"},     {"/a?", "/a"},       {"/a?b?c", "/a"},         {"/", "/"},
               {"/a%3Fb", "/a%3Fb"}, {"/a#b", "/a#b"},    {"/a//../b", "/a//../b"}, {"?b=1", "?b=1"},
               {"*", "*"},           {"/a;b,c", "/a;b,c"}};
  for (const auto& c : cases)
    EXPECT_EQ(answer_to_get(c.target, "Host: h\r\n"), moved_to(std::string("https://h") + c.path))
        << c.target;
}

TEST_F(redirects, request_line_without_a_target_leads_to_the_host_itself) {
  EXPECT_EQ(answer_to("GET\r\nHost: h\r\n\r\n"), moved_to("https://h"));
}

TEST_F(redirects, every_method_is_redirected) {
  for (const char* method : {"GET", "HEAD", "POST", "DELETE", "OPTIONS"})
    EXPECT_EQ(answer_to(std::string(method) + " /x HTTP/1.1\r\nHost: h\r\n\r\n"), moved_to("https://h/x"));
}

TEST_F(redirects, response_comes_when_the_whole_body_is_there) {
  client c = connect();
  c.send("POST /x HTTP/1.1\r\nHost: h\r\nContent-Length: 5\r\n\r\n1234");
  for (int i = 0; i < 3; i++) turn();
  EXPECT_TRUE(c.poll());
  EXPECT_EQ(c.received(), "");
  c.send("5");
  EXPECT_EQ(read_to_end(c), moved_to("https://h/x"));
}

TEST_F(redirects, request_may_come_byte_by_byte) {
  client c = connect();
  for (char byte : std::string("GET /x?y HTTP/1.1\r\nHost: h:80\r\n\r\n")) {
    c.send(std::string(1, byte));
    turn();
  }
  EXPECT_EQ(read_to_end(c), moved_to("https://h/x"));
}

TEST_F(redirects, connection_closes_even_when_the_client_asks_to_keep_it) {
  EXPECT_EQ(answer_to_get("/x", "Host: h\r\nConnection: keep-alive\r\n"), moved_to("https://h/x"));
}

TEST(redirector, response_changes_only_keep_alive) {
  console out;
  redirector r;
  std::string request = "GET / HTTP/1.1\r\nHost: h\r\n\r\n";
  r.on_recv(request.data(), static_cast<int>(request.size()));
  EXPECT_FALSE(r.keep_alive);
  EXPECT_EQ(r.timeout, 10);
  EXPECT_EQ(r.head, "GET / HTTP/1.1\r\nHost: h\r\n") << "no reset() after the last request";
}

// Both handshakes are answered before on_request, which can only close the connection.
TEST_F(redirects, websocket_handshake_is_answered_instead_of_redirected) {
  const std::string handshake =
      "Host: h\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
      "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: ";  // of RFC 6455, section 1.3
  EXPECT_EQ(answer_to_get("/", handshake + "13\r\n"),
            "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
            "Sec-WebSocket-Accept: s3pPLMBiTxaQ9kYGzzhZRbK+xOo=\r\nContent-Length: 0\r\n\r\n");
  EXPECT_EQ(answer_to_get("/", handshake + "12\r\n"),
            "HTTP/1.1 400 Bad Request\r\nSec-WebSocket-Version: 13\r\nContent-Length: 0\r\n\r\n");
  EXPECT_EQ(out.text(), "Warning! Double write() detected!\n");
}

TEST_F(redirects, http_1_0_client_gets_no_length_unless_it_asks_to_stay) {
  const std::string answer =
      "HTTP/1.1 301 Moved Permanently\r\nLocation: https://h/x\r\nConnection: close\r\n";
  EXPECT_EQ(answer_to("GET /x HTTP/1.0\r\nHost: h\r\n\r\n"), answer + "\r\n");
  EXPECT_EQ(answer_to("GET /x HTTP/1.0\r\nHost: h\r\nConnection: Keep-Alive\r\n\r\n"),
            answer + "Content-Length: 0\r\n\r\n");
}

TEST_F(redirects, only_the_line_of_every_request_is_printed) {
  client c = connect();
  const std::string peer = "127.0.0.1:" + std::to_string(c.local_port());
  c.send("GET /x?y HTTP/1.1\r\nHost: h\r\nUser-Agent: test\r\n\r\n");
  read_to_end(c);
  EXPECT_EQ(out.text(), peer + " GET /x?y HTTP/1.1 [test]\n");
}

TEST_F(redirects, server_makes_redirectors_whatever_its_connection_class_is) {
  redirect_server<http_proxy> other(0);
  for (server_base* server : {static_cast<server_base*>(&front), static_cast<server_base*>(&other)}) {
    std::unique_ptr<connection> made(server->create_connection(0));
    EXPECT_NE(dynamic_cast<redirector*>(made.get()), nullptr);
  }
}

TEST(redirector, class_adds_no_fields) {
  EXPECT_EQ(sizeof(redirector), sizeof(http_connection));
}

TEST(redirect_server, made_connection_is_like_any_new_one) {
  redirect_server<reverse_proxy> fresh(0);
  std::unique_ptr<connection> made(fresh.create_connection(0x0100007f));
  EXPECT_EQ(made->sock, -1);
  EXPECT_EQ(made->ip, 0U);
  EXPECT_EQ(made->timeout, 10);
  EXPECT_TRUE(made->keep);
}

TEST(redirect_server, client_is_refused_when_there_is_no_memory_for_a_connection) {
  redirect_server<reverse_proxy> fresh(0);
  std::vector<std::unique_ptr<connection>> made;  // objects in memory that was mapped before
  faults::of()["mmap"] = {0, 1000, ENOMEM};
  while (connection* next = fresh.create_connection(0)) {
    made.emplace_back(next);
    ASSERT_LT(made.size(), 1000U);
  }
  faults::clear();
}

TEST(redirect_server, new_server_is_like_any_other) {
  redirect_server<reverse_proxy> fresh(8080);
  EXPECT_EQ(fresh.sock, -1);
  EXPECT_EQ(fresh.connections.count, 0);
  EXPECT_EQ(fresh.port, 8080);
  EXPECT_FALSE(fresh.localhost_only);
  EXPECT_EQ(fresh.last_report, 0);
  EXPECT_EQ(fresh.last_count, -1);
}

TEST_F(redirects, server_carries_upstream_connections_as_well) {
  listener upstream;
  http_proxy::g_server() = &front;
  reverse_proxy::hosts().set("h", upstream.port());
  reverse_proxy secure;  // a connection as the TLS server has it
  std::string request = "GET / HTTP/1.1\r\nHost: h\r\n\r\n";
  secure.on_recv(request.data(), static_cast<int>(request.size()));
  EXPECT_EQ(front.connections.count, 1);

  std::unique_ptr<client> peer;
  const std::string forwarded = "GET / HTTP/1.1\r\nHost: h\r\nX-Forwarded-For: 0.0.0.0\r\n\r\n";
  EXPECT_TRUE(repeat_until(
      [&] {
        turn();
        if (!peer || !peer->ok()) peer = std::make_unique<client>(upstream.accept());
        if (peer->ok()) peer->poll();
      },
      [&] { return peer && peer->received().size() >= forwarded.size(); }));
  EXPECT_EQ(peer->received(), forwarded);
  peer->send("reply");
  EXPECT_TRUE(repeat_until([this] { turn(); }, [&] { return secure.pipe->to_client == "reply"; }));

  reverse_proxy::hosts().remove("h");
  http_proxy::g_server() = nullptr;
}
