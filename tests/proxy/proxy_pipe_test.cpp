// proxy_pipe alone: its references, and which side it wakes.

#include "proxy/proxy_pipe.h"
#include "tests/proxy/proxy_fixtures.h"

namespace {

// Descriptors are only numbers here: nothing is sent through them.
struct proxy_pipe_test : testing::Test {
  static constexpr int client_sock = 900;
  static constexpr int upstream_sock = 901;
  proxy_pipe* pipe = new proxy_pipe;

  proxy_pipe_test() {
    FD_ZERO(sockets::ready());
    for (int sock : {client_sock, upstream_sock}) sockets::add(sock);
    pipe->client_sock = client_sock;
    pipe->upstream_sock = upstream_sock;
  }

  // A test that drops the last reference itself sets `pipe` to null.
  ~proxy_pipe_test() override {
    delete pipe;
    for (fd_set* set : {sockets::all(), sockets::ready()}) FD_ZERO(set);
  }

  void expect_ready(bool client, bool upstream) {
    EXPECT_EQ(sockets::has(sockets::ready(), client_sock), client);
    EXPECT_EQ(sockets::has(sockets::ready(), upstream_sock), upstream);
  }
};

}  // namespace

TEST(proxy_pipe, starts_with_its_maker_as_the_only_owner_and_nothing_queued) {
  proxy_pipe pipe;
  EXPECT_EQ(pipe.refs, 1);
  EXPECT_TRUE(pipe.to_upstream.empty());
  EXPECT_TRUE(pipe.to_client.empty());
  EXPECT_EQ(pipe.client_sock, -1);
  EXPECT_EQ(pipe.upstream_sock, -1);
}

TEST_F(proxy_pipe_test, one_of_two_references_dropped_leaves_the_pipe_and_its_queues) {
  pipe->refs = 2;
  pipe->append_to_upstream("request", 7);
  pipe->append_to_client("reply", 5);
  pipe->release();
  EXPECT_EQ(pipe->refs, 1);
  EXPECT_EQ(pipe->to_upstream, "request");
  EXPECT_EQ(pipe->to_client, "reply");
}

// The leak checker of the test build sees whether they are freed.
TEST_F(proxy_pipe_test, last_reference_dropped_frees_the_pipe_and_both_queues) {
  const std::string bytes(100000, 'x');
  pipe->append_to_upstream(bytes.data(), bytes.size());
  pipe->append_to_client(bytes.data(), bytes.size());
  pipe->release();
  pipe = nullptr;
}

TEST_F(proxy_pipe_test, bytes_for_the_upstream_wake_only_the_upstream) {
  pipe->append_to_upstream("x", 1);
  expect_ready(false, true);
}

TEST_F(proxy_pipe_test, bytes_for_the_client_wake_only_the_client) {
  pipe->append_to_client("x", 1);
  expect_ready(true, false);
}

TEST_F(proxy_pipe_test, loss_of_an_upstream_that_took_and_gave_nothing_gives_the_client_only_the_502) {
  pipe->append_to_upstream("request", 7);
  char buf[7];
  int len = 0;
  pipe->give_upstream(buf, 7, &len);  // offered, but not taken
  FD_ZERO(sockets::ready());
  pipe->lose_upstream(7);
  EXPECT_EQ(pipe->to_client, bad_gateway);
  expect_ready(true, false);
}

TEST_F(proxy_pipe_test, loss_of_an_upstream_that_took_a_byte_is_not_answered) {
  pipe->append_to_upstream("request", 7);
  char buf[7];
  int len = 0;
  pipe->give_upstream(buf, 7, &len);
  FD_ZERO(sockets::ready());
  pipe->lose_upstream(6);
  EXPECT_EQ(pipe->to_client, "");
  expect_ready(false, false);
}

TEST_F(proxy_pipe_test, loss_of_an_upstream_that_gave_a_byte_is_not_answered) {
  pipe->append_to_client("x", 1);
  pipe->to_client.clear();
  pipe->lose_upstream(0);
  EXPECT_EQ(pipe->to_client, "");
}

TEST_F(proxy_pipe_test, side_that_ends_wakes_the_one_that_stays) {
  pipe->refs = 2;
  pipe->client_sock = -1;
  pipe->release();
  expect_ready(false, true);
}

TEST_F(proxy_pipe_test, descriptors_that_no_set_can_hold_are_passed_over) {
  pipe->client_sock = FD_SETSIZE;
  pipe->upstream_sock = -1;
  pipe->append_to_client("x", 1);
  pipe->append_to_upstream("y", 1);
  expect_ready(false, false);
  EXPECT_EQ(pipe->to_client, "x");
  EXPECT_EQ(pipe->to_upstream, "y");
}
