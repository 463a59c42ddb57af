// The forward proxy between real peers.

#include "tests/proxy/proxy_fixtures.h"

namespace {

struct forwarding_test : proxy_server<http_proxy> {
  std::string place() { return "127.0.0.1:" + std::to_string(upstream.port()); }

  struct tunnel {
    client from;
    client to;
  };

  tunnel open_tunnel() {
    client from = connect();
    from.send("CONNECT " + place() + " HTTP/1.1\r\nHost: " + place() + "\r\n\r\n");
    client to = accept();
    expect_bytes(from, tunnel_opened);
    return {std::move(from), std::move(to)};
  }
};

// An upstream on a privileged port, at an address of 127/8 that no other test uses at the same time.
class privileged_listener {
 public:
  explicit privileged_listener(uint16_t port) : sock_(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0)) {
    int on = 1;
    setsockopt(sock_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(0x7f800000 | (static_cast<uint32_t>(getpid()) & 0x7fffff));
    is_bound_ =
        bind(sock_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 && ::listen(sock_, 1) == 0;
    host_ = inet_ntoa(address.sin_addr);
  }
  privileged_listener(const privileged_listener&) = delete;
  privileged_listener& operator=(const privileged_listener&) = delete;
  ~privileged_listener() { close(sock_); }

  bool is_bound() const { return is_bound_; }
  const std::string& host() const { return host_; }
  client accept() { return client::from_socket(::accept(sock_, nullptr, nullptr)); }

 private:
  int sock_;
  bool is_bound_;
  std::string host_;
};

}  // namespace

TEST_F(forwarding_test, absolute_url_is_fetched_from_its_host) {
  client c = connect();
  c.send("GET http://" + place() + "/p?q HTTP/1.1\r\nHost: " + place() + "\r\nProxy-Connection: x\r\n\r\n");
  client peer = accept();
  expect_bytes(peer, "GET /p?q HTTP/1.1\r\nHost: " + place() + "\r\n\r\n");
  peer.send("HTTP/1.1 204 No Content\r\n\r\n");
  expect_bytes(c, "HTTP/1.1 204 No Content\r\n\r\n");
  EXPECT_EQ(out.text(),
            "127.0.0.1:" + std::to_string(c.local_port()) + " GET http://" + place() + "/p?q HTTP/1.1 []\n");
}

TEST_F(forwarding_test, second_request_goes_over_the_same_upstream_connection) {
  client c = connect();
  c.send("GET http://" + place() + "/1 HTTP/1.1\r\n\r\n");
  client peer = accept();
  expect_bytes(peer, "GET /1 HTTP/1.1\r\n\r\n");
  peer.send("reply");
  expect_bytes(c, "reply");
  c.send("GET http://" + place() + "/2 HTTP/1.1\r\n\r\n");
  expect_bytes(peer, "GET /2 HTTP/1.1\r\n\r\n");
  EXPECT_FALSE(upstream.accept().ok());
}

TEST_F(forwarding_test, target_without_a_port_is_connected_to_port_80) {
  const std::pair<const char*, const char*> table[] = {{"GET http://", "GET / HTTP/1.1\r\n\r\n"},
                                                       {"CONNECT ", ""}};
  for (const auto& [start, wanted] : table) {
    privileged_listener web(80);
    if (!web.is_bound()) GTEST_SKIP() << "port 80 is not available";
    client c = connect();
    c.send(start + web.host() + " HTTP/1.1\r\n\r\n");
    client peer = accept(web);
    expect_bytes(peer, wanted);
    peer.send("from port 80");
    expect_bytes(c, (*wanted ? "" : tunnel_opened) + "from port 80");
  }
}

TEST_F(forwarding_test, tunnel_carries_all_bytes_unchanged_in_both_directions) {
  tunnel t = open_tunnel();
  const std::string up = random_bytes(3 << 20, 5);
  const std::string down = random_bytes(3 << 20, 6);
  size_t sent_up = 0;
  size_t sent_down = 0;
  EXPECT_TRUE(serve_until([&] {
    sent_up += t.from.send(up.substr(sent_up, 100000));
    sent_down += t.to.send(down.substr(sent_down, 100000));
    t.from.poll();
    t.to.poll();
    return t.to.received().size() >= up.size() && t.from.received().size() >= down.size();
  }));
  expect_bytes(t.to, up);
  expect_bytes(t.from, down);
}

TEST_F(forwarding_test, tunnel_lets_the_upstream_speak_first) {
  tunnel t = open_tunnel();
  t.to.send("220 ready\r\n");
  expect_bytes(t.from, "220 ready\r\n");
  t.from.send("EHLO x\r\n\r\n");
  expect_bytes(t.to, "EHLO x\r\n\r\n");
}

TEST_F(forwarding_test, tunnel_ends_when_the_upstream_closes) {
  tunnel t = open_tunnel();
  t.to.send("last words");
  t.to.close();
  expect_end(t.from, "last words");
}

TEST_F(forwarding_test, tunnel_ends_when_the_client_closes) {
  tunnel t = open_tunnel();
  const std::string bytes = random_bytes(2 << 20, 7);
  send_all(t.from, bytes);
  t.from.close();
  expect_end(t.to, bytes);
}

TEST_F(forwarding_test, tunnel_is_never_timed_out) {
  tunnel t = open_tunnel();
  faults::clock_offset() = 1000000;
  expect_nothing(t.from);
  t.from.send("still there");
  expect_bytes(t.to, "still there");
}

// The client has its 200. It would take a response of ours for bytes of the tunnel.
TEST_F(forwarding_test, tunnel_whose_upstream_closes_at_once_ends_without_another_response) {
  client c = connect();
  c.send("CONNECT " + place() + " HTTP/1.1\r\n\r\n");
  client peer = accept();
  peer.close();
  expect_end(c, tunnel_opened);
}

TEST_F(forwarding_test, refused_upstream_is_answered_with_502_and_closed) {
  const std::string refused = "127.0.0.1:" + std::to_string(closed.port());
  for (const std::string& line : {"CONNECT " + refused, "GET http://" + refused + "/"}) {
    client c = connect();
    c.send(line + " HTTP/1.1\r\n\r\n");
    expect_end(c, bad_gateway);
  }
}

TEST_F(forwarding_test, late_refusal_of_a_request_gives_the_same_response) {
  auto passing = std::make_unique<listener>();
  client c = connect();
  c.send("GET http://127.0.0.1:" + std::to_string(passing->port()) + "/ HTTP/1.1\r\n\r\n");
  turn();
  passing.reset();
  expect_end(c, bad_gateway);
}
