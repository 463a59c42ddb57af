// How clients are accepted, and when they are refused.

#include <arpa/inet.h>
#include <netinet/tcp.h>

#include <cerrno>

#include "tests/net/child.h"
#include "tests/net/server_fixture.h"
#include "tests/support/new_faults.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class server_accept : public server_fixture {
 protected:
  std::string binding_line() const {
    return "Binding to port " + std::to_string(srv.port) + " on localhost only\n";
  }

  static int option(int sock, int level, int name) {
    int value = -1;
    socklen_t length = sizeof(value);
    EXPECT_EQ(getsockopt(sock, level, name, &value, &length), 0);
    return value;
  }
};

TEST_F(server_accept, waiting_client_is_accepted_and_asked_for_output_in_the_same_turn) {
  client waiting = connect_client();
  EXPECT_THAT(notes_of_a_turn(), ElementsAre("create for 127.0.0.1", "c1 on_accept", "c1 asked"));
  EXPECT_EQ(srv.connections.count, 1);
  expect_console("");
}

TEST_F(server_accept, at_most_one_client_is_accepted_in_a_turn) {
  client first = connect_client();
  client second = connect_client();
  client third = connect_client();
  for (int accepted : {1, 2, 3, 3}) {
    turn();
    EXPECT_EQ(srv.connections.count, accepted);
  }
}

TEST_F(server_accept, nobody_is_accepted_without_a_client) {
  turn();
  EXPECT_EQ(faults::calls()["accept4"], 0);
}

// When on_accept() has returned, there is no memory for the place in the list.
struct server_without_memory : server<recording_connection> {
  int removed = 0;

  explicit server_without_memory(int listen_port) : server(listen_port, true) {}
  bool on_accept(connection*) override {
    new_faults() = {true, 0, 0, 1};
    return true;
  }
  void on_remove(connection*) override {
    new_faults() = {};
    removed++;
  }
};

TEST_F(server_accept, welcome_client_for_which_the_list_has_no_memory_is_removed_by_the_hook_too) {
  server_without_memory other(free_port());
  ASSERT_TRUE(other.start());
  client waiting(other.port);
  ASSERT_TRUE(wait_for(other.sock, POLLIN));
  screen.clear();
  EXPECT_TRUE(other.accept_connection());
  new_faults() = {};
  EXPECT_EQ(other.removed, 1);
  EXPECT_EQ(other.connections.count, 0);
  EXPECT_THAT(screen.text(), testing::HasSubstr(" has failed: std::bad_alloc\n"));
}

TEST_F(server_accept, port_0_accepts_nobody) {
  client waiting = connect_client();
  int port = srv.port;
  srv.port = 0;
  EXPECT_THAT(notes_of_a_turn(), IsEmpty());
  srv.port = port;
}

TEST_F(server_accept, fields_are_filled_and_the_socket_does_not_block_when_on_accept_is_called) {
  client waiting = connect_client();
  srv.when_called = [&](connection* conn) {
    EXPECT_EQ(conn->ip, htonl(INADDR_LOOPBACK));
    EXPECT_EQ(conn->port, waiting.local_port());
    EXPECT_EQ(conn->server, &srv);
    EXPECT_TRUE(fcntl(conn->sock, F_GETFL) & O_NONBLOCK);
  };
  EXPECT_TRUE(srv.accept_connection());
  EXPECT_THAT(notes, ElementsAre("create for 127.0.0.1", "c1 on_accept"));
}

TEST_F(server_accept, connection_joins_the_list_and_the_registry_after_on_accept) {
  client waiting = connect_client();
  srv.when_called = [&](connection* conn) {
    EXPECT_EQ(srv.connections.count, 0);
    EXPECT_FALSE(FD_ISSET(conn->sock, sockets::all()));
  };
  EXPECT_TRUE(srv.accept_connection());
  ASSERT_EQ(srv.connections.count, 1);
  EXPECT_TRUE(FD_ISSET(srv.connections.tail->value->sock, sockets::all()));
}

TEST_F(server_accept, accepted_connection_has_the_other_fields_as_they_were_made) {
  connection* conn = join().conn;
  EXPECT_EQ(conn->ssl, nullptr);
  EXPECT_EQ(conn->last_active, start_time);
  EXPECT_EQ(conn->out_len, 0);
  EXPECT_EQ(conn->timeout, 10);
}

TEST_F(server_accept, accepted_socket_sends_small_packets_at_once_and_probes_silent_peers) {
  int sock = join().conn->sock;
  EXPECT_EQ(option(sock, IPPROTO_TCP, TCP_NODELAY), 1);
  EXPECT_EQ(option(sock, SOL_SOCKET, SO_KEEPALIVE), 1);
}

TEST_F(server_accept, silent_peer_is_given_up_after_two_minutes_of_probes) {
  int sock = join().conn->sock;
  EXPECT_EQ(option(sock, IPPROTO_TCP, TCP_KEEPIDLE) +
                option(sock, IPPROTO_TCP, TCP_KEEPINTVL) * option(sock, IPPROTO_TCP, TCP_KEEPCNT),
            120);
}

TEST_F(server_accept, client_on_descriptor_0_is_served_like_any_other) {
  client waiting = connect_client();
  EXPECT_TRUE(run_in_child([&] {
    ::close(0);
    turn();
    ASSERT_EQ(srv.connections.count, 1);
    EXPECT_EQ(srv.connections.tail->value->sock, 0);
    waiting.send("hello");
    ASSERT_TRUE(wait_for(0, POLLIN));
    EXPECT_THAT(notes_of_a_turn(), testing::Contains("c1 received hello"));
    srv.stop();
    EXPECT_FALSE(is_open(0));
  }));
  expect_console("");
}

TEST_F(server_accept, connections_are_listed_in_order_of_arrival) {
  for (int i = 0; i < 3; i++) join();
  int i = 0;
  connection* conn = nullptr;
  for (srv.connections.begin(); srv.connections.current(conn); srv.connections.next())
    EXPECT_EQ(conn, links[static_cast<size_t>(i++)].conn);
  EXPECT_EQ(i, 3);
}

TEST_F(server_accept, client_is_refused_quietly_when_no_connection_is_made) {
  client waiting = connect_client();
  srv.creates = false;
  fd_set before = *sockets::all();
  EXPECT_TRUE(srv.accept_connection());
  EXPECT_THAT(notes, ElementsAre("create for 127.0.0.1"));
  EXPECT_EQ(srv.connections.count, 0);
  EXPECT_EQ(memcmp(&before, sockets::all(), sizeof(before)), 0);
  EXPECT_TRUE(repeat_until([&] { waiting.poll(); }, [&] { return waiting.is_closed(); }));
  expect_console("");
}

TEST_F(server_accept, client_is_refused_quietly_by_on_accept) {
  client waiting = connect_client();
  srv.accepts = false;
  fd_set before = *sockets::all();
  EXPECT_TRUE(srv.accept_connection());
  EXPECT_THAT(notes, ElementsAre("create for 127.0.0.1", "c1 on_accept", "c1 deleted"));
  EXPECT_EQ(srv.connections.count, 0);
  EXPECT_EQ(memcmp(&before, sockets::all(), sizeof(before)), 0);
  EXPECT_TRUE(repeat_until([&] { waiting.poll(); }, [&] { return waiting.is_closed(); }));
  expect_console("");
}

TEST_F(server_accept, client_is_refused_when_on_accept_throws) {
  client waiting = connect_client();
  srv.when_called = [](connection*) { throw std::string("no such function"); };
  EXPECT_THROW(srv.accept_connection(), std::string);
  EXPECT_THAT(notes, ElementsAre("create for 127.0.0.1", "c1 deleted"));
  EXPECT_EQ(srv.connections.count, 0);
  EXPECT_TRUE(repeat_until([&] { waiting.poll(); }, [&] { return waiting.is_closed(); }));
}

TEST_F(server_accept, refused_object_is_deleted_before_its_socket_is_closed) {
  client waiting = connect_client();
  srv.accepts = false;
  bool was_open = false;
  srv.when_called = [&](connection* conn) {
    static_cast<recording_connection*>(conn)->when_deleted = [&, conn] { was_open = is_open(conn->sock); };
  };
  srv.accept_connection();
  EXPECT_TRUE(was_open);
}

TEST_F(server_accept, refusal_does_not_disturb_the_turn) {
  link& a = join();
  client waiting = connect_client();
  srv.creates = false;
  EXPECT_THAT(notes_of_a_turn(), ElementsAre("create for 127.0.0.1", "c1 asked"));
  EXPECT_EQ(srv.connections.count, 1);
  a.deliver("still served");
  EXPECT_THAT(notes_of_a_turn(),
              ElementsAre("c1 recv 1048576 -> 12", "c1 received still served", "c1 asked"));
}

TEST_F(server_accept, failed_accept_is_printed) {
  faults::of()["accept4"] = {0, 1, EMFILE};
  EXPECT_FALSE(srv.accept_connection());
  expect_console("accept() failed\n");
  EXPECT_THAT(notes, IsEmpty());
}

TEST_F(server_accept, failed_accept_restarts_the_server_within_the_turn) {
  link& a = join();
  client waiting = connect_client();
  srv.last_report = 0;
  faults::of()["accept4"] = {0, 1, EMFILE};
  EXPECT_THAT(notes_of_a_turn(), ElementsAre("c1 on_remove, closed and unregistered", "c1 deleted", "start"));
  expect_console("accept() failed\n" + binding_line());
  a.expect_closed();
  EXPECT_EQ(srv.last_report, start_time) << "the rest of the turn is as usual";
  EXPECT_GE(srv.sock, 0);
  join();
  EXPECT_EQ(srv.connections.count, 1);
}

TEST_F(server_accept, connections_are_served_before_a_client_is_accepted) {
  link& a = join();
  client waiting = connect_client();
  a.deliver("hello");
  EXPECT_THAT(notes_of_a_turn(), ElementsAre("c1 recv 1048576 -> 5", "c1 received hello",
                                             "create for 127.0.0.1", "c2 on_accept", "c1 asked", "c2 asked"));
}

TEST_F(server_accept, connection_from_outside_was_never_accepted) {
  link& a = make_outside();
  append(a);
  turn();
  EXPECT_EQ(a.conn->server, nullptr);
  EXPECT_EQ(a.conn->ip, 0u);
  EXPECT_EQ(a.conn->port, 0);
  EXPECT_THAT(notes, ElementsAre("c1 asked"));
}

TEST_F(server_accept, connection_can_be_handed_over_with_its_socket) {
  link& a = make_outside();
  srv.add_connection(a.conn);
  EXPECT_EQ(srv.connections.tail->value, a.conn);
  EXPECT_TRUE(FD_ISSET(a.conn->sock, sockets::all()));
}

}  // namespace
