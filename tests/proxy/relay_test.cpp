// The relay between real peers: what goes through, and how it ends.

#include "tests/proxy/proxy_fixtures.h"

namespace {

struct relay_test : proxy_server<reverse_proxy> {
  listener second_upstream;

  relay_test() {
    map("a", upstream.port());
    map("also-a", upstream.port());
    map("b", second_upstream.port());
    map("echo", -1);
  }

  // A client whose first request, of "/first", has reached the upstream.
  struct exchange {
    client from;
    client to;
  };

  exchange start_exchange() {
    client from = connect();
    from.send(request_to("a", "/first"));
    client to = accept();
    expect_bytes(to, forwarded("a", "/first"));
    return {std::move(from), std::move(to)};
  }
};

}  // namespace

TEST_F(relay_test, request_and_response_arrive_as_they_were_sent) {
  client c = connect();
  c.send(request_to("a", "/first"));
  client peer = accept();
  expect_bytes(peer, forwarded("a", "/first"));
  EXPECT_EQ(out.text(), "[a] 127.0.0.1:" + std::to_string(c.local_port()) + " GET /first HTTP/1.1 []\n");
  const std::string reply = "any bytes " + random_bytes(5000);
  peer.send(reply);
  expect_bytes(c, reply);
}

TEST_F(relay_test, connections_end_with_the_descriptors_closed_when_the_server_stops) {
  exchange x = start_exchange();
  EXPECT_EQ(front.connections.count, 2);
  front.stop();
  EXPECT_EQ(front.connections.count, 0);
  EXPECT_FALSE(x.from.poll());
  EXPECT_FALSE(x.to.poll());
}

TEST_F(relay_test, output_takes_two_turns) {
  client c = connect();
  c.send(request_to("a"));
  turn();  // the request is read, the upstream opened and asked for output
  client peer = upstream.accept();
  ASSERT_TRUE(peer.ok());
  peer.poll();
  EXPECT_EQ(peer.received(), "");
  turn();  // written
  peer.poll();
  EXPECT_EQ(peer.received(), forwarded("a"));

  peer.send("reply");
  turn();
  c.poll();
  EXPECT_EQ(c.received(), "");
  turn();
  c.poll();
  EXPECT_EQ(c.received(), "reply");
}

TEST_F(relay_test, body_larger_than_the_output_buffer_arrives_whole) {
  const std::string body = random_bytes(3 * connection::out_capacity + 17);
  client c = connect();
  c.send(request_to("a", "/", length_of(body)));
  client peer = accept();
  send_all(c, body);
  expect_bytes(peer, forwarded("a", "/", length_of(body), body));
}

TEST_F(relay_test, response_larger_than_the_output_buffer_arrives_whole) {
  exchange x = start_exchange();
  const std::string reply = random_bytes(3 * connection::out_capacity + 17);
  send_all(x.to, reply);
  expect_bytes(x.from, reply);
}

TEST_F(relay_test, bytes_arrive_in_order_however_few_are_moved_at_a_time) {
  faults::most_bytes() = 7;
  client c = connect();
  const std::string body = random_bytes(300);
  send_all(c, request_to("a", "/", length_of(body), body));
  client peer = accept();
  expect_bytes(peer, forwarded("a", "/", length_of(body), body));
  faults::most_bytes() = 1;
  send_all(peer, "reply, byte by byte");
  expect_bytes(c, "reply, byte by byte");
}

TEST_F(relay_test, requests_to_hosts_on_one_port_share_the_upstream_connection) {
  exchange x = start_exchange();
  x.to.send("first reply");
  expect_bytes(x.from, "first reply");
  x.from.send(request_to("also-a", "/second"));
  expect_bytes(x.to, forwarded("also-a", "/second"));
  x.to.send("second reply");
  expect_bytes(x.from, "second reply");
  EXPECT_FALSE(upstream.accept().ok());
}

TEST_F(relay_test, each_client_has_an_upstream_connection_of_its_own) {
  exchange x = start_exchange();
  exchange y = start_exchange();
  x.to.send("for x");
  y.to.send("for y");
  expect_bytes(x.from, "for x");
  expect_bytes(y.from, "for y");
}

TEST_F(relay_test, switch_to_another_port_lets_the_old_upstream_have_what_is_held_and_closes_it) {
  const std::string body = random_bytes(3 * connection::out_capacity, 2);
  client c = connect();
  c.send(request_to("a", "/", length_of(body)));
  client first = accept();
  send_all(c, body);
  serve_until([&] { return !served(c).headers_received; });
  c.send(request_to("b", "/second"));
  client second = accept(second_upstream);
  expect_bytes(second, forwarded("b", "/second"));
  expect_end(first, forwarded("a", "/", length_of(body), body));
  second.send("reply");
  expect_bytes(c, "reply");
}

TEST_F(relay_test, unknown_host_and_echo_keep_the_connection) {
  client c = connect();
  for (int i = 0; i < 2; i++) {
    c.send(request_to("unknown"));
    expect_bytes(c, not_found);
    c.send(request_to("echo"));
    expect_bytes(c, echo_page(request_to("echo")));
  }
  c.send(request_to("a"));
  client peer = accept();
  expect_bytes(peer, forwarded("a"));
}

TEST_F(relay_test, upstream_that_closes_while_idle_ends_the_client_connection_too) {
  exchange x = start_exchange();
  x.to.send("reply");
  expect_bytes(x.from, "reply");
  x.to.close();
  expect_end(x.from);
  EXPECT_EQ(front.connections.count, 0);
}

TEST_F(relay_test, upstream_that_closes_in_mid_response_lets_what_it_sent_arrive) {
  exchange x = start_exchange();
  const std::string part = "HTTP/1.1 200 OK\r\nContent-Length: 9000000\r\n\r\n" + random_bytes(4000000);
  send_all(x.to, part);
  x.to.close();
  expect_end(x.from, part);
}

TEST_F(relay_test, upstream_that_resets_in_mid_response_lets_what_was_read_arrive) {
  exchange x = start_exchange();
  x.to.send("half a rep");
  expect_bytes(x.from, "half a rep");
  x.to.close_with_reset();
  expect_end(x.from);
}

TEST_F(relay_test, client_that_reads_late_gets_everything_in_the_end) {
  exchange x = start_exchange();
  const std::string reply = random_bytes(6 * connection::out_capacity, 3);
  send_all(x.to, reply);
  x.to.close();
  serve_until_quiet();
  expect_end(x.from, reply);
}

TEST_F(relay_test, client_that_vanishes_in_mid_body_leaves_the_upstream_what_it_sent) {
  const std::string part = random_bytes(2 * connection::out_capacity, 4);
  client c = connect();
  c.send(request_to("a", "/", "Content-Length: 9000000\r\n"));
  client peer = accept();
  send_all(c, part);
  c.close();
  expect_end(peer, forwarded("a", "/", "Content-Length: 9000000\r\n", part));
  serve_until([&] { return front.connections.count == 0; });
  EXPECT_EQ(front.connections.count, 0);
}

TEST_F(relay_test, client_that_resets_in_mid_body_ends_its_upstream) {
  client c = connect();
  c.send(request_to("a", "/", "Content-Length: 9\r\n", "1234"));
  client peer = accept();
  expect_bytes(peer, forwarded("a", "/", "Content-Length: 9\r\n", "1234"));
  c.close_with_reset();
  expect_end(peer);
}

TEST_F(relay_test, client_that_leaves_before_its_upstream_has_got_the_request_leaves_it_complete) {
  client c = connect();
  c.send(request_to("a"));
  c.close();
  client peer = accept();
  expect_end(peer, forwarded("a"));
}

TEST_F(relay_test, client_that_has_proxied_once_is_never_timed_out) {
  exchange x = start_exchange();
  faults::clock_offset() = 1000000;
  out.clear();
  expect_nothing(x.from);
  expect_nothing(x.to);
  x.to.send("late reply");
  expect_bytes(x.from, "late reply");
  EXPECT_EQ(out.text(), "");
}

TEST_F(relay_test, client_that_was_only_answered_by_us_is_timed_out_as_usual) {
  client c = connect();
  c.send(request_to("unknown"));
  expect_bytes(c, not_found);
  const int sock = served(c).sock;
  out.clear();
  faults::clock_offset() = 12;
  expect_end(c);
  EXPECT_EQ(out.text(), time_out_line(sock));
}

TEST_F(relay_test, websocket_upgrade_is_relayed_and_not_answered_here) {
  client c = connect();
  const std::string lines = "Upgrade: websocket\r\nSec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n";
  c.send(request_to("a", "/chat", lines));
  client peer = accept();
  expect_bytes(peer, forwarded("a", "/chat", lines));
  expect_nothing(c);
  peer.send("HTTP/1.1 101 Switching Protocols\r\n\r\n");
  expect_bytes(c, "HTTP/1.1 101 Switching Protocols\r\n\r\n");
  peer.send("\x81\x02hi");
  expect_bytes(c, "\x81\x02hi");
}

TEST_F(relay_test, pipelined_request_reaches_the_upstream_as_it_came) {
  client c = connect();
  c.send(request_to("a", "/1") + request_to("b", "/2"));
  client peer = accept();
  expect_bytes(peer, forwarded("a", "/1") + request_to("b", "/2"));
  EXPECT_FALSE(second_upstream.accept().ok());
}

TEST_F(relay_test, upstreams_are_not_shown_to_on_accept_and_are_removed_like_clients) {
  struct counting : server<reverse_proxy> {
    using server::server;
    int accepted = 0;
    int removed = 0;
    bool on_accept(connection*) override { return ++accepted > 0; }
    void on_remove(connection*) override { removed++; }
  };
  counting second(free_port(), true);
  silence_reports(second);
  ASSERT_TRUE(second.start());
  http_proxy::g_server() = &second;
  auto turn_of_second = [&] { take_turn(second); };
  client c(second.port);
  c.send(request_to("a"));
  EXPECT_TRUE(repeat_until(turn_of_second, [&] { return second.connections.count == 2; }));
  EXPECT_EQ(second.accepted, 1);
  c.close();
  EXPECT_TRUE(repeat_until(turn_of_second, [&] { return second.connections.count == 0; }));
  EXPECT_EQ(second.removed, 2);
}
