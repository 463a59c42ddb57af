// Hooks that throw: their connection ends with a line on the console, and the others go on.

#include <stdexcept>

#include "tests/net/server_fixture.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

struct number_nobody_expects {};

[[noreturn]] void fail() {
  throw std::runtime_error("no luck");
}

class server_hooks : public server_fixture {
 protected:
  /* Adds a connection that must not notice the failures of the others. */
  void SetUp() override {
    server_fixture::SetUp();
    bystander = &join();
    turn();
  }

  void expect_bystander_is_served() {
    bystander->conn->answers = {gives("hello")};
    for (int i = 0; i < 3; i++) turn();
    bystander->expect_received("hello");
    EXPECT_EQ(srv.connections.count, 1);
    EXPECT_EQ(connection::selected(), nullptr);
  }

  link* bystander = nullptr;
};

}  // namespace

TEST_F(server_hooks, on_recv_that_throws_ends_only_its_connection) {
  link& a = join();
  const std::string message = std::to_string(a.conn->sock) + " has failed: no luck\n";
  a.conn->when_received = [] { fail(); };
  a.deliver("x");
  turn();
  expect_console(message);
  a.expect_closed();
  expect_bystander_is_served();
}

TEST_F(server_hooks, on_send_that_throws_ends_only_its_connection) {
  link& a = join();
  const std::string message = std::to_string(a.conn->sock) + " has failed: no luck\n";
  a.conn->answers = {[](char*, int, int*) -> bool { fail(); }};
  turn();
  expect_console(message);
  a.expect_closed();
  expect_bystander_is_served();
}

TEST_F(server_hooks, anything_may_be_thrown) {
  link& a = join();
  const std::string message = line(a, "has failed");
  a.conn->when_received = [] { throw number_nobody_expects(); };
  a.deliver("x");
  turn();
  expect_console(message);
  a.expect_closed();
  expect_bystander_is_served();
}

TEST_F(server_hooks, connection_that_fails_is_ended_like_any_other) {
  link& a = join();
  a.conn->when_received = [] { fail(); };
  a.deliver("x");
  notes.clear();
  turn();
  EXPECT_THAT(notes, ElementsAre("c2 recv 1048576 -> 1", "c2 received x",
                                 "c2 on_remove, closed and unregistered", "c2 deleted", "c1 asked"));
}

TEST_F(server_hooks, create_connection_that_throws_refuses_the_client) {
  client c = connect_client();
  srv.when_created = [] { fail(); };
  turn();
  EXPECT_TRUE(repeat_until([&] { c.poll(); }, [&] { return c.is_closed(); }));
  EXPECT_THAT(screen.text(), HasSubstr("has failed: no luck\n"));
  srv.when_created = nullptr;
  expect_bystander_is_served();
}

TEST_F(server_hooks, on_accept_that_throws_refuses_the_client) {
  client c = connect_client();
  srv.when_called = [](connection*) { fail(); };
  turn();
  EXPECT_TRUE(repeat_until([&] { c.poll(); }, [&] { return c.is_closed(); }));
  EXPECT_THAT(screen.text(), HasSubstr("has failed: no luck\n"));
  srv.when_called = nullptr;
  expect_bystander_is_served();
}

TEST_F(server_hooks, on_remove_that_throws_does_not_keep_the_connection) {
  link& a = join();
  const std::string message =
      line(a, "has timed out") + std::to_string(a.conn->sock) + " has failed: no luck\n";
  idle(a, 11);
  srv.when_called = [&](connection* conn) {
    if (conn->out_len == 0 && !is_open(conn->sock)) fail();
  };
  turn();
  expect_console(message);
  a.expect_closed();
  srv.when_called = nullptr;
  expect_bystander_is_served();
}

TEST_F(server_hooks, stop_ends_every_connection_though_on_remove_throws) {
  link& a = join();
  srv.when_called = [](connection*) { fail(); };
  srv.stop();
  EXPECT_EQ(srv.connections.count, 0);
  a.expect_closed();
  bystander->expect_closed();
  srv.when_called = nullptr;
}

// A call of an entry point that the TLS library lacks throws a text. The driver prints it and ends the run.
TEST_F(server_hooks, text_that_is_thrown_passes_through) {
  link& a = join();
  a.conn->when_received = [] { throw std::string("no such function"); };
  a.deliver("x");
  EXPECT_THROW(turn(), std::string);
  expect_console("");
}

// The number of a closed socket must not be marked: select() would fail on it, and disconnect everybody.
TEST_F(server_hooks, connection_that_marks_its_socket_in_its_destructor_harms_nobody) {
  link& a = join();
  const int sock = a.conn->sock;
  a.conn->when_deleted = [=] { sockets::mark_ready(sock); };
  a.deliver_end();
  turn();
  expect_bystander_is_served();
}
