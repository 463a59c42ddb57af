// Upstreams that cannot be reached, and upstreams that only seem to be so.

#include <sys/resource.h>
#include <unistd.h>

#include "tests/proxy/proxy_fixtures.h"

namespace {

struct bad_gateway_test : proxy_server<reverse_proxy> {
  bad_gateway_test() {
    map("a", upstream.port());
    map("dead", closed.port());
  }

  // The line that is printed for a request of "/" that `c` has sent.
  static std::string line_for(const client& c, const std::string& host) {
    return "[" + host + "] 127.0.0.1:" + std::to_string(c.local_port()) + " GET / HTTP/1.1 []\n";
  }
};

// As long as this lives, every descriptor below FD_SETSIZE is in use.
struct no_small_descriptor {
  rlimit before = {};
  std::vector<int> taken;

  no_small_descriptor() {
    getrlimit(RLIMIT_NOFILE, &before);
    rlimit wanted = before;
    wanted.rlim_cur = std::min<rlim_t>(before.rlim_max, FD_SETSIZE + 1024);
    setrlimit(RLIMIT_NOFILE, &wanted);
    while (taken.empty() || (taken.back() >= 0 && taken.back() < FD_SETSIZE)) taken.push_back(dup(0));
  }
  bool worked() const { return taken.back() >= FD_SETSIZE; }
  ~no_small_descriptor() {
    for (int sock : taken) close(sock);
    setrlimit(RLIMIT_NOFILE, &before);
  }
};

}  // namespace

TEST_F(bad_gateway_test, refused_upstream_is_answered_in_the_turn_of_the_request) {
  client c = connect();
  c.send(request_to("dead"));
  turn();
  turn();
  EXPECT_FALSE(c.poll());
  EXPECT_EQ(c.received(), bad_gateway);
  EXPECT_EQ(out.text(), line_for(c, "dead"));
  EXPECT_EQ(front.connections.count, 0);
}

TEST_F(bad_gateway_test, refused_upstream_after_a_good_one_ends_both) {
  client c = connect();
  c.send(request_to("a"));
  client peer = accept();
  expect_bytes(peer, forwarded("a"));
  c.send(request_to("dead"));
  expect_end(c, bad_gateway);
  expect_end(peer);
}

TEST_F(bad_gateway_test, requests_after_the_refused_one_are_not_answered) {
  client c = connect();
  c.send(request_to("dead"));
  turn();
  c.send(request_to("unknown"));
  expect_end(c, bad_gateway);
}

TEST_F(bad_gateway_test, name_that_does_not_resolve_is_answered_with_502) {
  client c = connect();
  faults::fail_next_look_up(-2);
  c.send(request_to("a"));
  expect_end(c, bad_gateway);
  EXPECT_EQ(out.text(), line_for(c, "a") + "getaddrinfo() failed for host localhost:" +
                            std::to_string(upstream.port()) + "!\n");
}

TEST_F(bad_gateway_test, connect_that_fails_at_once_is_answered_with_502) {
  client c = connect();
  faults::of()["connect"] = {0, 1, 111, -1};
  c.send(request_to("a"));
  expect_end(c, bad_gateway);
}

TEST_F(bad_gateway_test, descriptor_that_no_set_can_hold_is_answered_with_502) {
  client c = connect();
  client other = connect();
  other.send(request_to("a"));
  client peer = accept();
  expect_bytes(peer, forwarded("a"));
  {
    no_small_descriptor full;
    if (!full.worked()) GTEST_SKIP() << "the limit on descriptors is too low";
    c.send(request_to("a"));
    expect_end(c, bad_gateway);
    EXPECT_FALSE(upstream.accept().ok());
    peer.send("undisturbed");
    expect_bytes(other, "undisturbed");
  }
}

// The connection waits in the listener's queue and is reset when the listener closes.
TEST_F(bad_gateway_test, late_refusal_gives_the_same_response) {
  auto passing = std::make_unique<listener>();
  map("passing", passing->port());
  client c = connect();
  c.send(request_to("passing"));
  turn();
  ASSERT_EQ(front.connections.count, 2);
  passing.reset();
  expect_end(c, bad_gateway);
  EXPECT_EQ(out.text(), line_for(c, "passing"));
}

TEST_F(bad_gateway_test, upstream_that_closes_before_it_took_or_gave_anything_gives_the_same_response) {
  for (bool is_reset : {false, true}) {
    client c = connect();
    c.send(request_to("a"));
    turn();
    client peer = upstream.accept();
    ASSERT_TRUE(peer.ok());
    is_reset ? peer.close_with_reset() : peer.close();
    expect_end(c, bad_gateway);
  }
}

TEST_F(bad_gateway_test, late_refusal_of_a_request_with_a_large_body_gives_the_same_response) {
  const std::string body = random_bytes(2 * connection::out_capacity);
  client c = connect();
  c.send(request_to("a", "/", length_of(body)));
  turn();
  upstream.accept().close();
  c.send(body.substr(0, 1000));
  serve_until([&] { return !c.poll(); });
  EXPECT_EQ(c.received(), bad_gateway);
}

TEST_F(bad_gateway_test, upstream_that_took_the_request_and_closes_gives_the_client_nothing) {
  client c = connect();
  c.send(request_to("a"));
  client peer = accept();
  expect_bytes(peer, forwarded("a"));
  peer.close();
  expect_end(c);
}

TEST_F(bad_gateway_test, upstream_that_took_some_of_the_request_and_closes_gives_the_client_nothing) {
  client c = connect();
  c.send(request_to("a"));
  turn();
  // One byte goes, and the rest of the write finds the socket full.
  faults::most_bytes() = 1;
  faults::of()["send"] = {1, 1, 11, -1};
  turn();
  faults::most_bytes() = 0;
  client peer = upstream.accept();
  peer.poll();
  EXPECT_EQ(peer.received(), "G");
  peer.close();
  expect_end(c);
}

TEST_F(bad_gateway_test, upstream_that_gave_something_without_being_asked_and_closes_is_relayed) {
  client c = connect();
  c.send(request_to("a"));
  turn();
  client peer = upstream.accept();
  peer.send("greeting");
  peer.close();
  expect_end(c, "greeting");
}

TEST_F(bad_gateway_test, upstream_that_ends_after_an_earlier_response_gives_the_client_nothing_more) {
  client c = connect();
  c.send(request_to("a"));
  client peer = accept();
  expect_bytes(peer, forwarded("a"));
  peer.send("reply");
  expect_bytes(c, "reply");
  c.send(request_to("a"));
  peer.close();
  expect_end(c);
}

TEST_F(bad_gateway_test, client_that_left_first_is_not_answered) {
  client c = connect();
  c.send(request_to("a"));
  c.close();
  turn();
  client peer = upstream.accept();
  EXPECT_TRUE(serve_until([&] { return front.connections.count == 1; }))
      << "only the upstream's connection is left";
  peer.close();
  faults::calls().clear();
  EXPECT_TRUE(serve_until([&] { return front.connections.count == 0; }));
  EXPECT_EQ(faults::calls()["send"], 0);
}
