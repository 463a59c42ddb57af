// No server is assigned for upstream connections. They are opened, but nobody serves them.

#include "tests/proxy/proxy_fixtures.h"

namespace {

template <class T>
struct no_server : proxy_server<T> {
  listener second_upstream;

  no_server() { http_proxy::g_server() = nullptr; }

  // A client whose request has been read, and the upstream's end of the connection opened for it.
  struct exchange {
    client from;
    client to;
  };

  exchange start_exchange(const std::string& request) {
    client from = this->connect();
    this->out.clear();
    from.send(request);
    return {std::move(from), this->accept()};
  }

  std::string line_for(const client& c, const std::string& request_line) {
    return "127.0.0.1:" + std::to_string(c.local_port()) + " " + request_line + " []\n";
  }
};

struct no_server_to_route_with : no_server<reverse_proxy> {
  no_server_to_route_with() {
    map("a", upstream.port());
    map("also-a", upstream.port());
    map("b", second_upstream.port());
  }
};

struct no_server_to_forward_with : no_server<http_proxy> {
  std::string url() { return "http://127.0.0.1:" + std::to_string(upstream.port()) + "/"; }
};

}  // namespace

TEST_F(no_server_to_route_with, message_is_printed_and_neither_end_gets_anything) {
  exchange x = start_exchange(request_to("a"));
  EXPECT_EQ(out.text(), "[a] " + line_for(x.from, "GET / HTTP/1.1") + no_server_line);
  expect_nothing(x.from);
  expect_nothing(x.to);
  EXPECT_EQ(front.connections.count, 1);
}

TEST_F(no_server_to_route_with, message_is_not_flushed) {
  client c = connect();
  reverse_proxy& proxy = served(c);
  expect_unflushed([&] { deliver(proxy, request_to("a")); },
                   "[a] " + line_for(c, "GET / HTTP/1.1") + no_server_line);
}

TEST_F(no_server_to_route_with, request_is_queued_and_the_fields_of_the_client_are_as_with_a_server) {
  exchange x = start_exchange(request_to("a", "/", length_of("body"), "body"));
  EXPECT_EQ(served(x.from).pipe->to_upstream, forwarded("a", "/", length_of("body"), "body"));
  EXPECT_EQ(served(x.from).pipe->refs, 2);
  EXPECT_EQ(served(x.from).timeout, -1);
  EXPECT_EQ(served(x.from).upstream_port, upstream.port());
  ASSERT_NE(served(x.from).unserved, nullptr);
  EXPECT_FALSE(sockets::has(sockets::all(), served(x.from).unserved->sock));
  EXPECT_TRUE(served(x.from).keep_alive);
}

TEST_F(no_server_to_route_with, upstream_is_closed_when_the_client_ends) {
  exchange x = start_exchange(request_to("a"));
  x.from.close();
  expect_end(x.to);
}

TEST_F(no_server_to_route_with, upstream_is_closed_when_the_server_stops) {
  exchange x = start_exchange(request_to("a"));
  front.stop();
  EXPECT_FALSE(x.to.poll());
  EXPECT_FALSE(x.from.poll());
}

TEST_F(no_server_to_route_with, upstream_is_closed_when_the_client_goes_elsewhere) {
  exchange x = start_exchange(request_to("a"));
  x.from.send(request_to("b"));
  client second = accept(second_upstream);
  expect_end(x.to);
  expect_nothing(second);
  x.from.close();
  expect_end(second);
}

TEST_F(no_server_to_route_with, further_requests_to_the_same_port_are_queued_without_another_message) {
  exchange x = start_exchange(request_to("a"));
  const std::string line = line_for(x.from, "GET / HTTP/1.1");
  x.from.send(request_to("also-a"));
  expect_nothing(x.from);
  EXPECT_EQ(out.text(), "[a] " + line + no_server_line + "[also-a] " + line);
  EXPECT_EQ(served(x.from).pipe->to_upstream, forwarded("a") + forwarded("also-a"));
}

TEST_F(no_server_to_route_with, unknown_hosts_are_still_answered) {
  client c = connect();
  c.send(request_to("unknown"));
  expect_bytes(c, not_found);
}

TEST_F(no_server_to_route_with, refused_upstream_is_still_answered_with_502) {
  map("dead", closed.port());
  client c = connect();
  c.send(request_to("dead"));
  expect_end(c, bad_gateway);
  EXPECT_EQ(out.text(), "[dead] " + line_for(c, "GET / HTTP/1.1"));
}

TEST_F(no_server_to_route_with, server_assigned_later_carries_the_next_upstream) {
  exchange x = start_exchange(request_to("a"));
  http_proxy::g_server() = &front;
  x.from.send(request_to("b"));
  client second = accept(second_upstream);
  expect_bytes(second, forwarded("b"));
  expect_end(x.to);
}

TEST_F(no_server_to_forward_with, message_is_printed_and_neither_end_gets_anything) {
  exchange x = start_exchange("GET " + url() + " HTTP/1.1\r\n\r\n");
  EXPECT_EQ(out.text(), line_for(x.from, "GET " + url() + " HTTP/1.1") + no_server_line);
  expect_nothing(x.from);
  expect_nothing(x.to);
  x.from.close();
  expect_end(x.to);
}

// A 200 would promise a tunnel that carries nothing.
TEST_F(no_server_to_forward_with, tunnel_gets_no_200) {
  const std::string place = "127.0.0.1:" + std::to_string(upstream.port());
  exchange x = start_exchange("CONNECT " + place + " HTTP/1.1\r\n\r\n");
  EXPECT_EQ(out.text(), line_for(x.from, "CONNECT " + place + " HTTP/1.1") + no_server_line);
  x.from.send("early");
  expect_nothing(x.from);
  expect_nothing(x.to);
}
