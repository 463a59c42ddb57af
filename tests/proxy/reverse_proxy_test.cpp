// reverse_proxy by hand: which host goes where, and the bytes that are queued for it.

#include "tests/proxy/proxy_fixtures.h"

namespace {

const std::string ip = "10.0.0.7";

struct reverse_proxy_test : proxy_object<reverse_proxy> {
  listener second_upstream;

  // "on" is mapped to the upstream, "echo" to the echo page.
  reverse_proxy_test() {
    map("on", upstream.port());
    map("echo", -1);
  }

  // What the console shows for a request of GET / without a user agent.
  static std::string line_for(const std::string& host) {
    return "[" + host + "] 10.0.0.7:51234 GET / HTTP/1.1 []\n";
  }
};

}  // namespace

TEST_F(reverse_proxy_test, host_value_has_to_equal_the_key_byte_for_byte) {
  struct lookup {
    const char* key;
    const char* line;
    bool is_found;
  };
  const lookup table[] = {
      {"a.example", "Host: a.example\r\n", true},
      {"a.example", "HOST: a.example\r\n", true},
      {"a.example", "host: a.example\r\n", true},
      {"a.example", "Host: A.example\r\n", false},
      {"A.example", "Host: a.example\r\n", false},
      {"A.example", "Host: A.example\r\n", true},
      {"a.example", "Host: a.example:80\r\n", false},
      {"a.example:80", "Host: a.example\r\n", false},
      {"a.example:80", "Host: a.example:80\r\n", true},
      {"a.example", "Host: a.example \r\n", false},
      {"a.example", "Host:  a.example\r\n", false},
      {"a.example", "Host: a.example.\r\n", false},
      {"a.example", "Host: b.a.example\r\n", false},
      {"a.example", "Host: a.example\r\nHost: b.example\r\n", true},
      {"a.example", "Host: b.example\r\nHost: a.example\r\n", false},
      // The two bytes after the name are skipped, whatever they are.
      {"a.example", "Host:a.example\r\n", false},
      {".example", "Host:a.example\r\n", true},
      {"a.example", "Accept: a\r\n", false},
      {"", "Accept: a\r\n", true},
      {"", "Host: \r\n", true},
      {"", "Host: a.example\r\n", false},
  };
  for (const lookup& l : table) {
    SCOPED_TRACE(std::string(l.key) + " / " + l.line);
    start_over();
    map(l.key, upstream.port());
    receive("GET / HTTP/1.1\r\n" + std::string(l.line) + "\r\n");
    EXPECT_EQ(is_idle(), !l.is_found);
    EXPECT_EQ(upstreams(), l.is_found ? 1 : 0);
    EXPECT_EQ(to_client(), l.is_found ? "" : not_found);
    reverse_proxy::hosts().remove(l.key);
  }
}

TEST_F(reverse_proxy_test, value_of_zero_is_the_same_as_no_key) {
  map("zero", 0);
  receive(request_to("zero"));
  EXPECT_EQ(to_client(), not_found);
}

// The message of a failed look-up shows that the number was taken for a port.
TEST_F(reverse_proxy_test, every_other_value_is_taken_for_a_port) {
  for (int port : {-2, 1, 65536, INT32_MIN, INT32_MAX}) {
    SCOPED_TRACE(port);
    start_over();
    map("odd", port);
    out.clear();
    faults::fail_next_look_up(-2);
    receive(request_to("odd"));
    EXPECT_EQ(out.text(),
              line_for("odd") + "getaddrinfo() failed for host localhost:" + std::to_string(port) + "!\n");
    EXPECT_EQ(to_client(), bad_gateway);
  }
}

TEST_F(reverse_proxy_test, every_host_is_unknown_to_an_empty_map) {
  for (const char* host : {"on", "echo"}) reverse_proxy::hosts().remove(host);
  for (const char* lines : {"Host: on\r\n\r\n", "Host: \r\n\r\n", "Accept: a\r\n\r\n"})
    receive("GET / HTTP/1.1\r\n" + std::string(lines));
  EXPECT_EQ(to_client(), not_found + not_found + not_found);
}

TEST_F(reverse_proxy_test, every_request_prints_one_line_whatever_follows) {
  map("dead", closed.port());
  for (const char* host : {"on", "echo", "unknown", "", "dead"}) {
    SCOPED_TRACE(host);
    start_over();
    out.clear();
    receive(request_to(host));
    EXPECT_EQ(out.text(), line_for(host));
  }
}

TEST_F(reverse_proxy_test, line_on_the_console_is_not_flushed) {
  expect_unflushed([this] { receive(request_to("unknown")); }, line_for("unknown"));
}

TEST_F(reverse_proxy_test, line_on_the_console_shows_the_peer_the_request_line_and_the_agent) {
  receive(request_to("unknown", "/index.html?a=1", "User-Agent: curl/8.0\r\n"));
  EXPECT_EQ(out.text(), "[unknown] 10.0.0.7:51234 GET /index.html?a=1 HTTP/1.1 [curl/8.0]\n");
  out.clear();
  proxy->ip = htonl(INADDR_LOOPBACK);
  receive(request_to("unknown", "/", "X-Forwarded-For: 1.2.3.4\r\n"));
  EXPECT_EQ(out.text(), "[unknown] 1.2.3.4:51234 GET / HTTP/1.1 []\n");
}

TEST_F(reverse_proxy_test, unknown_host_is_answered_and_the_connection_stays_usable) {
  receive(request_to("unknown"));
  EXPECT_TRUE(proxy->keep_alive);
  output o = ask(*proxy);
  EXPECT_EQ(o.bytes, not_found);
  EXPECT_TRUE(o.stays_open);
  receive(request_to("on"));
  EXPECT_EQ(to_upstream(), forwarded("on", "/", "", "", ip));
}

TEST_F(reverse_proxy_test, echo_page_shows_the_head_and_the_address) {
  receive("POST /x?y=1 HTTP/1.1\r\nhOST: q\r\nHost: echo\r\n\r\n");
  EXPECT_EQ(to_client(), not_found);  // the first of two Host lines counts
  proxy->pipe->to_client.clear();
  const std::string request =
      "POST /x?y=1 HTTP/1.1\r\nHost: echo\r\nProxy-Connection: 1\r\nConnection: b\r\nX-Odd:  c \r\n\r\n";
  receive(request);
  EXPECT_EQ(to_client(), echo_page(request, ip));
  EXPECT_TRUE(proxy->keep_alive);
  EXPECT_TRUE(is_idle());
  EXPECT_EQ(upstreams(), 0);
  EXPECT_EQ(proxy->timeout, 10);
}

TEST_F(reverse_proxy_test, echo_page_counts_its_bytes_exactly) {
  // The lengths cross the points where the number of digits grows.
  std::vector<size_t> lengths = {9900, 99900, 1000000};
  for (size_t length = 0; length < 1200; length += 37) lengths.push_back(length);
  for (size_t length : lengths) {
    const std::string request = request_to("echo", "/" + std::string(length, 'p'));
    receive(request);
    EXPECT_EQ(to_client(), echo_page(request, ip));
    proxy->pipe->to_client.clear();
  }
}

TEST_F(reverse_proxy_test, echo_page_keeps_bytes_above_ascii) {
  const std::string request = request_to("echo", "/\xc3\xbc\xff");
  receive(request);
  EXPECT_EQ(to_client(), echo_page(request, ip));
}

TEST_F(reverse_proxy_test, address_is_written_with_four_unsigned_decimals) {
  const std::pair<uint32_t, const char*> table[] = {{0xfffe0100, "255.254.1.0"},
                                                    {0x7f000001, "127.0.0.1"},
                                                    {0x00000000, "0.0.0.0"},
                                                    {0x80818283, "128.129.130.131"}};
  for (const auto& [address, text] : table) {
    start_over();
    proxy->ip = htonl(address);
    receive(request_to("echo"));
    EXPECT_EQ(to_client(), echo_page(request_to("echo"), text));
    receive(request_to("on"));
    EXPECT_EQ(to_upstream(), forwarded("on", "/", "", "", text));
  }
}

TEST_F(reverse_proxy_test, address_is_that_of_the_connection_whatever_the_client_claims) {
  proxy->ip = htonl(INADDR_LOOPBACK);
  const std::string claim = "X-Forwarded-For: 1.2.3.4\r\n";
  receive(request_to("echo", "/", claim));
  EXPECT_EQ(to_client(), echo_page(request_to("echo", "/", claim), "127.0.0.1"));
  receive(request_to("on", "/", claim));
  EXPECT_EQ(to_upstream(), forwarded("on", "/", claim));
}

TEST_F(reverse_proxy_test, bodies_of_answered_requests_are_dropped) {
  for (const char* host : {"unknown", "echo"}) {
    receive(request_to(host, "/", length_of("12345"), "12345"));
    receive(request_to(host, "/", length_of("12345"), "1"));
    receive("2345");
    ask(*proxy);
    EXPECT_EQ(to_upstream(), "");
    EXPECT_EQ(proxy->content, "");
    EXPECT_EQ(proxy->head, "");
  }
}

// The pipe is the same, and nothing checks to which request a body belongs.
TEST_F(reverse_proxy_test, bodies_of_answered_requests_go_to_an_upstream_that_is_there) {
  receive(request_to("on"));
  std::string wanted = forwarded("on", "/", "", "", ip);
  for (const char* host : {"unknown", "echo"}) {
    receive(request_to(host, "/", length_of("12345"), "12"));
    receive("345");
    wanted += "12345";
    EXPECT_EQ(to_upstream(), wanted);
  }
  EXPECT_EQ(upstreams(), 1);
}

TEST_F(reverse_proxy_test, forwarded_head_is_rebuilt_with_the_clients_lines_in_order_and_our_own_last) {
  receive(
      "POST /a/b?c=d&e HTTP/1.1\r\n"
      "zEBRA: 1\r\n"
      "Host: on\r\n"
      "Connection: keep-alive, x\r\n"
      "X-Forwarded-For: 9.9.9.9\r\n"
      "connection: lower\r\n"
      "Proxy-Connection: keep-alive\r\n"
      "Accept:*/*\r\n"
      "Proxy-Authorization: Basic eDp5\r\n"
      "accept: again\r\n"
      "\r\n");
  EXPECT_EQ(to_upstream(),
            "POST /a/b?c=d&e HTTP/1.1\r\n"
            "zEBRA: 1\r\n"
            "Host: on\r\n"
            "X-Forwarded-For: 9.9.9.9\r\n"
            "connection: lower\r\n"
            "Accept:*/*\r\n"
            "accept: again\r\n"
            "X-Forwarded-For: 10.0.0.7\r\n"
            "\r\n");
}

TEST_F(reverse_proxy_test, request_line_goes_on_as_it_came) {
  for (const char* line : {"GET /%20?a=b%3f HTTP/1.1", "DELETE * HTTP/1.0", "options http://on/x HTTP/1.1",
                           "X-ODD /\xc3\xbc HTTP/9.9", "CONNECT on:1 HTTP/1.1"}) {
    start_over();
    receive(std::string(line) + "\r\nHost: on\r\n\r\n");
    EXPECT_EQ(to_upstream(), std::string(line) + "\r\nHost: on\r\nX-Forwarded-For: 10.0.0.7\r\n\r\n");
    EXPECT_EQ(to_client(), "");
  }
}

TEST_F(reverse_proxy_test, request_without_a_host_goes_where_the_empty_key_says) {
  map("", upstream.port());
  receive("GET / HTTP/1.1\r\nAccept: a\r\n\r\n");
  EXPECT_EQ(out.text(), line_for(""));
  EXPECT_EQ(to_upstream(), "GET / HTTP/1.1\r\nAccept: a\r\nX-Forwarded-For: 10.0.0.7\r\n\r\n");
}

TEST_F(reverse_proxy_test, request_is_the_same_however_its_bytes_are_cut) {
  const std::string body = "0123456789";
  const std::string request = request_to("on", "/p?q", length_of(body) + "Connection: c\r\n", body);
  const std::string wanted = forwarded("on", "/p?q", length_of(body), body, ip);
  for (size_t cut = 0; cut <= request.size(); cut++) {
    SCOPED_TRACE(cut);
    start_over();
    receive(request.substr(0, cut));
    receive(request.substr(cut));
    EXPECT_EQ(to_upstream(), wanted);
    EXPECT_EQ(upstreams(), 1);
  }
  start_over();
  for (char c : request) receive(std::string(1, c));
  EXPECT_EQ(to_upstream(), wanted);
}

TEST_F(reverse_proxy_test, bytes_after_a_request_go_along_as_its_body) {
  const std::string second = request_to("echo");
  receive(request_to("on") + second);
  EXPECT_EQ(to_upstream(), forwarded("on", "/", "", "", ip) + second);
  EXPECT_EQ(to_client(), "");
  receive(request_to("echo"));
  EXPECT_EQ(to_upstream(), forwarded("on", "/", "", "", ip) + second);
  EXPECT_EQ(to_client(), echo_page(request_to("echo"), ip));
}

TEST_F(reverse_proxy_test, websocket_upgrade_is_forwarded_and_not_answered) {
  const std::string lines = "Upgrade: websocket\r\nSec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n";
  receive(request_to("on", "/chat", lines + "Connection: Upgrade\r\nSec-WebSocket-Version: 13\r\n"));
  EXPECT_EQ(to_upstream(), forwarded("on", "/chat", lines + "Sec-WebSocket-Version: 13\r\n", "", ip));
  EXPECT_FALSE(proxy->upgraded);
  EXPECT_EQ(ask(*proxy).bytes, "");
}

TEST_F(reverse_proxy_test, hosts_on_one_port_share_an_upstream) {
  map("also-on", upstream.port());
  proxy->upstream_host = "not looked at";
  receive(request_to("on", "/1"));
  receive(request_to("also-on", "/2"));
  EXPECT_EQ(upstreams(), 1);
  EXPECT_EQ(to_upstream(), forwarded("on", "/1", "", "", ip) + forwarded("also-on", "/2", "", "", ip));
  EXPECT_EQ(proxy->upstream_port, upstream.port());
  EXPECT_EQ(proxy->upstream_host, "not looked at");
}

TEST_F(reverse_proxy_test, host_on_another_port_gets_an_upstream_of_its_own) {
  map("other", second_upstream.port());
  receive(request_to("on", "/1"));
  receive(request_to("other", "/2"));
  EXPECT_EQ(upstreams(), 2);
  EXPECT_EQ(proxy->upstream_port, second_upstream.port());
  EXPECT_EQ(to_upstream(), forwarded("other", "/2", "", "", ip));
  output old = ask(upstream_side(0));
  EXPECT_EQ(old.bytes, forwarded("on", "/1", "", "", ip));
  EXPECT_FALSE(old.stays_open);
}

TEST_F(reverse_proxy_test, upstream_that_has_ended_is_not_reused) {
  receive(request_to("on", "/1"));
  end_upstream();
  receive(request_to("on", "/2"));
  EXPECT_EQ(upstreams(), 1);
  EXPECT_EQ(to_upstream(), forwarded("on", "/2", "", "", ip));
}

TEST_F(reverse_proxy_test, body_of_a_request_whose_upstream_has_ended_is_dropped) {
  receive(request_to("on", "/", "Content-Length: 10\r\n", "01234"));
  deliver(upstream_side(), "early answer");
  end_upstream();
  receive("56789");
  EXPECT_EQ(ask(*proxy).bytes, "early answer");
  EXPECT_EQ(to_upstream(), "");
}

TEST_F(reverse_proxy_test, responses_of_our_own_go_after_what_the_upstream_sent) {
  receive(request_to("on"));
  deliver(upstream_side(), "reply");
  receive(request_to("unknown"));
  EXPECT_EQ(to_client(), "reply" + not_found);
}

TEST_F(reverse_proxy_test, upstream_that_refuses_is_answered_at_once_and_the_connection_closes) {
  map("dead", closed.port());
  receive(request_to("dead", "/", length_of("body"), "body"));
  EXPECT_FALSE(proxy->keep_alive);
  EXPECT_EQ(proxy->timeout, 10);
  EXPECT_EQ(proxy->upstream_port, 0);
  EXPECT_EQ(to_upstream(), "body");  // the request itself was not queued, and nobody will read this
  EXPECT_EQ(upstreams(), 0);
  output o = ask(*proxy);
  EXPECT_EQ(to_upstream(), "");
  EXPECT_EQ(o.bytes, bad_gateway);
  EXPECT_FALSE(o.stays_open);
}

// This happens if two servers serve the two sides, and the upstream's server takes its turn late.
TEST_F(reverse_proxy_test, upstream_that_ends_before_it_is_asked_for_output_gives_the_same_response) {
  receive(request_to("on"));
  end_upstream();
  output o = ask(*proxy);
  EXPECT_EQ(o.bytes, bad_gateway);
  EXPECT_FALSE(o.stays_open);
}

TEST_F(reverse_proxy_test, upstream_that_took_4_gib_and_ends_gives_the_client_nothing) {
  receive(request_to("on"));
  const auto request_length = static_cast<int64_t>(to_upstream().size());
  proxy->pipe->offered = (int64_t{1} << 32) - request_length;
  ask(upstream_side());
  end_upstream();
  EXPECT_EQ(to_client(), "");
}

TEST_F(reverse_proxy_test, upstream_that_gave_a_single_byte_and_ends_gives_the_client_nothing_more) {
  receive(request_to("on"));
  deliver(upstream_side(), "x");
  EXPECT_EQ(ask(*proxy).bytes, "x");
  end_upstream();
  EXPECT_EQ(to_client(), "");
}

TEST_F(reverse_proxy_test, name_of_the_upstream_is_localhost) {
  faults::fail_next_look_up(-2);
  receive(request_to("on"));
  EXPECT_EQ(out.text(), line_for("on") + "getaddrinfo() failed for host localhost:" +
                            std::to_string(upstream.port()) + "!\n");
  EXPECT_EQ(to_client(), bad_gateway);
}

TEST_F(reverse_proxy_test, upstream_without_a_socket_is_answered_with_502) {
  faults::of()["socket"] = {0, 1, 24, -1};
  receive(request_to("on"));
  EXPECT_EQ(out.text(), line_for("on") + "No addresses worked for host localhost:" +
                            std::to_string(upstream.port()) + ".\n");
  EXPECT_EQ(to_client(), bad_gateway);
  EXPECT_FALSE(proxy->keep_alive);
}

TEST_F(reverse_proxy_test, upstream_makes_the_client_stay_for_any_time) {
  receive(request_to("on"));
  EXPECT_EQ(proxy->timeout, -1);
  EXPECT_EQ(upstream_side().timeout, -1);
  EXPECT_TRUE(proxy->keep_alive);
}

TEST_F(reverse_proxy_test, upstream_is_registered_with_the_server_without_being_accepted) {
  receive(request_to("on"));
  EXPECT_TRUE(sockets::has(sockets::all(), upstream_side().sock));
  EXPECT_EQ(upstream_side().server, nullptr);
  EXPECT_EQ(upstream_side().ip, 0u);
  EXPECT_EQ(upstream_side().port, 0);
}

TEST_F(reverse_proxy_test, request_of_http_1_0_is_the_last_one_of_its_connection) {
  receive("GET / HTTP/1.0\r\nHost: unknown\r\n\r\n");
  EXPECT_FALSE(proxy->keep_alive);
  receive(request_to("echo"));
  output o = ask(*proxy);
  EXPECT_EQ(o.bytes, not_found);
  EXPECT_TRUE(o.stays_open);
}

TEST_F(reverse_proxy_test, connection_header_of_http_1_1_changes_nothing) {
  receive(request_to("on", "/", "Connection: close\r\n"));
  EXPECT_TRUE(proxy->keep_alive);
  receive(request_to("on"));
  EXPECT_EQ(to_upstream(), forwarded("on", "/", "", "", ip) + forwarded("on", "/", "", "", ip));
}

TEST_F(reverse_proxy_test, only_the_forward_proxy_blocks_hosts) {
  struct blocking : reverse_proxy {
    bool should_block(const std::string&) override { return true; }
  };
  auto strict = std::make_unique<blocking>();
  deliver(*strict, request_to("on"));
  EXPECT_EQ(strict->pipe->to_client, "");
  EXPECT_EQ(upstreams(), 1);
}
