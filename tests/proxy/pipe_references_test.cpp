// Who holds the pipe while a client connection and its upstreams begin and end.

#include "tests/proxy/proxy_fixtures.h"

namespace {

// The test holds a reference of its own to the pipe of the first exchange. This adds one to `refs`.
struct pipe_references : proxy_object<reverse_proxy> {
  listener second_upstream;
  proxy_pipe* held = nullptr;

  pipe_references() {
    map("a", upstream.port());
    map("b", second_upstream.port());
    map("dead", closed.port());
  }

  ~pipe_references() override {
    if (held) held->release();
  }

  void hold_pipe() {
    held = proxy->pipe;
    held->refs++;
  }

  void expect_owners(int count) { EXPECT_EQ(held->refs - 1, count); }
};

}  // namespace

TEST_F(pipe_references, opening_an_upstream_leaves_the_idle_pipe_and_shares_a_new_one) {
  receive(request_to("a"));
  EXPECT_EQ(proxy->idle_pipe.refs, 1);
  EXPECT_FALSE(is_idle());
  EXPECT_EQ(proxy->pipe->refs, 2);
  ASSERT_EQ(upstreams(), 1);
  EXPECT_EQ(upstream_side().pipe, proxy->pipe);
  EXPECT_EQ(to_client(), "");
}

// A new connection's upstream_port is 0, which no host has, so only a subclass can come here.
TEST_F(pipe_references, idle_pipe_counts_as_an_upstream_on_the_port_that_is_set) {
  proxy->upstream_port = upstream.port();
  receive(request_to("a"));
  EXPECT_TRUE(is_idle());
  EXPECT_EQ(to_upstream(), forwarded("a", "/", "", "", "10.0.0.7"));
  EXPECT_EQ(upstreams(), 0);
}

TEST_F(pipe_references, client_that_ends_first_leaves_the_pipe_to_the_upstream) {
  receive(request_to("a"));
  hold_pipe();
  proxy.reset();
  expect_owners(1);
  EXPECT_EQ(held->to_upstream, forwarded("a", "/", "", "", "10.0.0.7"));
  end_upstream();
  expect_owners(0);
}

// A subclass may write to the queue directly.
TEST_F(pipe_references, what_is_queued_for_the_client_stays_when_its_upstream_ends) {
  receive(request_to("a"));
  proxy->pipe->to_client = "rest";
  end_upstream();
  output o = ask(*proxy);
  EXPECT_EQ(o.bytes, "rest");
  EXPECT_FALSE(o.stays_open);
}

TEST_F(pipe_references, upstream_that_ends_first_leaves_the_pipe_to_the_client) {
  receive(request_to("a"));
  hold_pipe();
  deliver(upstream_side(), "reply");
  end_upstream();
  expect_owners(1);
  EXPECT_EQ(held->to_client, "reply");
  proxy.reset();
  expect_owners(0);
}

// The sanitizers of the test build see that it is freed exactly once.
TEST_F(pipe_references, either_order_of_ending_frees_the_pipe) {
  receive(request_to("a"));
  proxy.reset();
  end_upstream();
  start_over();
  receive(request_to("a"));
  end_upstream();
  proxy.reset();
}

TEST_F(pipe_references, upstream_that_is_alone_sends_what_it_holds_and_closes) {
  receive(request_to("a"));
  proxy.reset();
  output o = ask(upstream_side());
  EXPECT_EQ(o.bytes, forwarded("a", "/", "", "", "10.0.0.7"));
  EXPECT_FALSE(o.stays_open);
}

TEST_F(pipe_references, client_that_is_alone_sends_what_it_holds_and_closes) {
  receive(request_to("a"));
  deliver(upstream_side(), "reply");
  end_upstream();
  output o = ask(*proxy);
  EXPECT_EQ(o.bytes, "reply");
  EXPECT_FALSE(o.stays_open);
}

TEST_F(pipe_references, switch_to_another_upstream_drops_the_old_pipe_with_what_it_holds_for_the_client) {
  receive(request_to("a"));
  deliver(upstream_side(), "old reply");
  hold_pipe();
  receive(request_to("b"));
  expect_owners(1);
  EXPECT_NE(proxy->pipe, held);
  EXPECT_EQ(proxy->pipe->refs, 2);
  EXPECT_EQ(to_client(), "");
  EXPECT_EQ(upstreams(), 2);
}

TEST_F(pipe_references, failed_upstream_leaves_the_client_alone_on_a_new_pipe) {
  receive(request_to("a"));
  hold_pipe();
  receive(request_to("dead"));
  expect_owners(1);
  EXPECT_NE(proxy->pipe, held);
  EXPECT_EQ(proxy->pipe->refs, 1);
  EXPECT_EQ(to_client(), bad_gateway);
  EXPECT_EQ(upstreams(), 1);
}

TEST_F(pipe_references, response_of_our_own_keeps_the_pipe) {
  map("echo", -1);
  for (const char* host : {"unknown", "echo"}) receive(request_to(host));
  EXPECT_TRUE(is_idle());
  EXPECT_EQ(proxy->idle_pipe.refs, 2);
  receive(request_to("a"));
  hold_pipe();
  for (const char* host : {"unknown", "echo"}) receive(request_to(host));
  EXPECT_EQ(proxy->pipe, held);
  expect_owners(2);
}

TEST_F(pipe_references, reused_upstream_gets_no_further_reference) {
  receive(request_to("a"));
  receive(request_to("a"));
  EXPECT_EQ(proxy->pipe->refs, 2);
  EXPECT_EQ(upstreams(), 1);
}

TEST_F(pipe_references, server_that_stops_ends_the_upstream_and_its_reference) {
  receive(request_to("a"));
  relay.stop();
  EXPECT_EQ(proxy->pipe->refs, 1);
}
