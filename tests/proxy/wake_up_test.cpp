// Bytes that can be sent do not wait for the end of a select(): whoever queues them wakes the other end.

#include "tests/proxy/proxy_fixtures.h"

namespace {

// One server has the clients, and another has the upstreams and takes its turn after the first. If nobody
// woke the client, bytes from an upstream would stay queued until the wait after the next one.
struct wake_up_test : proxy_server<reverse_proxy> {
  server<reverse_proxy> back{0};

  wake_up_test() {
    http_proxy::g_server() = &back;
    silence_reports(back);
    map("a", upstream.port());
  }

  void wait() { sockets::select_all(); }

  void turn_of_both() { take_turn(front, back); }

  bool is_ready(int sock) { return sockets::has(sockets::ready(), sock); }

  int upstream_sock() { return connection_at(back, 0)->sock; }

  // A client whose request the upstream has got. No socket is ready then.
  struct exchange {
    client from;
    client to;
  };

  exchange start_exchange() {
    client from = connect();
    from.send(request_to("a"));
    repeat_until([&] { turn_of_both(); }, [&] { return back.connections.count == 1; });
    client to = upstream.accept();
    repeat_until([&] { turn_of_both(); }, [&] { return !to.poll() || !to.received().empty(); });
    EXPECT_EQ(to.received(), forwarded("a"));
    to.forget_received();
    repeat_until([&] { turn_of_both(); }, [] { return sockets::num_ready() == 0; });
    return {std::move(from), std::move(to)};
  }
};

}  // namespace

TEST_F(wake_up_test, bytes_from_the_upstream_wake_the_client) {
  exchange x = start_exchange();
  x.to.send("reply");
  turn_of_both();
  EXPECT_TRUE(is_ready(served(x.from).sock));
  EXPECT_FALSE(is_ready(upstream_sock()));
  wait();
  EXPECT_EQ(sockets::num_ready(), 1);
  EXPECT_TRUE(sockets::has(sockets::writable(), served(x.from).sock));
}

TEST_F(wake_up_test, response_goes_out_in_the_third_turn_without_an_idle_wait) {
  exchange x = start_exchange();
  x.to.send("reply");
  for (int turns = 0; turns < 3; turns++) {
    turn_of_both();
    EXPECT_GT(sockets::num_ready(), 0) << turns;
  }
  x.from.poll();
  EXPECT_EQ(x.from.received(), "reply");
}

TEST_F(wake_up_test, bytes_from_the_client_wake_the_upstream) {
  exchange x = start_exchange();
  x.from.send(request_to("a"));
  wait();
  front.update();
  EXPECT_TRUE(is_ready(upstream_sock()));
  EXPECT_FALSE(is_ready(served(x.from).sock));
}

TEST_F(wake_up_test, request_wakes_the_upstream_that_it_opens) {
  client c = connect();
  c.send(request_to("a"));
  wait();
  front.update();
  ASSERT_EQ(back.connections.count, 1);
  EXPECT_TRUE(is_ready(upstream_sock()));
}

TEST_F(wake_up_test, response_of_our_own_wakes_its_client) {
  map("dead", closed.port());
  map("echo", -1);
  for (const char* host : {"unknown", "echo", "dead"}) {
    client c = connect();
    reverse_proxy& proxy = served(c);
    deliver(proxy, request_to(host));
    EXPECT_TRUE(is_ready(proxy.sock)) << host;
    front.stop();
    front.start();
  }
}

TEST_F(wake_up_test, upstream_that_ends_wakes_its_client_and_is_forgotten) {
  exchange x = start_exchange();
  const int ended = upstream_sock();
  x.to.close();
  turn_of_both();
  ASSERT_EQ(back.connections.count, 0);
  EXPECT_TRUE(is_ready(served(x.from).sock));
  EXPECT_FALSE(is_ready(ended));
  EXPECT_EQ(served(x.from).pipe->upstream_sock, -1);
  // What the client still sends does not wake a new owner of this descriptor.
  deliver(served(x.from), request_to("unknown", "/", length_of("body"), "body"));
  EXPECT_FALSE(is_ready(ended));
}

TEST_F(wake_up_test, client_that_ends_wakes_its_upstream_and_is_forgotten) {
  exchange x = start_exchange();
  const int ended = served(x.from).sock;
  x.from.close();
  wait();
  front.update();
  ASSERT_EQ(front.connections.count, 0);
  EXPECT_TRUE(is_ready(upstream_sock()));
  EXPECT_FALSE(is_ready(ended));
  auto& upstream_side = dynamic_cast<proxy_connection&>(*connection_at(back, 0));
  EXPECT_EQ(upstream_side.pipe->client_sock, -1);
  deliver(upstream_side, "late reply");
  EXPECT_FALSE(is_ready(ended));
}

TEST_F(wake_up_test, upstream_that_is_left_for_another_is_woken_to_close) {
  exchange x = start_exchange();
  listener second;
  map("b", second.port());
  const int left = upstream_sock();
  deliver(served(x.from), request_to("b"));
  EXPECT_TRUE(is_ready(left));
  EXPECT_EQ(dynamic_cast<proxy_connection&>(*connection_at(back, 0)).pipe->client_sock, -1);
}

TEST_F(wake_up_test, relay_over_two_servers_ends_on_both_sides) {
  exchange x = start_exchange();
  x.to.send("last words");
  x.to.close();
  EXPECT_TRUE(repeat_until([&] { turn_of_both(); }, [&] { return !x.from.poll(); }));
  EXPECT_EQ(x.from.received(), "last words");
  EXPECT_EQ(front.connections.count + back.connections.count, 0);
}
