// The passes over the list: removals, additions, and descriptors that are opened again within a turn.

#include "tests/net/server_fixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class server_list : public server_fixture {
 protected:
  // A connection from outside on the descriptor `sock`, which must be free.
  link& make_outside_on(int sock) {
    link& l = make_outside();
    EXPECT_EQ(dup2(l.conn->sock, sock), sock);
    ::close(l.conn->sock);
    l.conn->sock = sock;
    return l;
  }

  static void expect_in_no_set(int sock) {
    for (auto set : {sockets::ready, sockets::readable, sockets::writable, sockets::errors})
      EXPECT_FALSE(FD_ISSET(sock, set()));
  }

  // Each of these makes the service pass of the next turn end the connection.
  struct way_to_end {
    const char* name;
    void (*end)(link&);
  };
  static constexpr way_to_end ways_to_end[] = {{"time-out", [](link& l) { idle(l, 11); }},
                                               {"errors", [](link& l) { l.deliver_urgent_byte(); }},
                                               {"end of stream", [](link& l) { l.deliver_end(); }},
                                               {"output sent", [](link& l) {
                                                  l.conn->out_len = 1;
                                                  l.conn->keep = false;
                                                  sockets::mark_ready(l.conn->sock);
                                                }}};
};

TEST_F(server_list, connection_after_a_removed_one_is_serviced_in_the_next_turn) {
  for (const way_to_end& w : ways_to_end) {
    for (int i = 0; i < 4; i++) w.end(join());
    // The first turn removes the first and the third, the next turn the second, and the last turn the fourth.
    for (int left : {2, 1, 0}) {
      turn();
      EXPECT_EQ(srv.connections.count, left) << w.name;
    }
    srv.stop();
    srv.start();
  }
}

TEST_F(server_list, ended_connection_is_off_the_list_when_on_remove_is_called) {
  std::vector<int> counts;  // of the connections on the list in on_remove(), when the socket is closed
  srv.when_called = [&](connection* conn) {
    if (!is_open(conn->sock)) counts.push_back(srv.connections.count);
  };
  for (const way_to_end& w : ways_to_end) {
    w.end(join());
    counts.clear();
    turn();
    EXPECT_THAT(counts, ElementsAre(0)) << w.name;
  }
}

TEST_F(server_list, connection_after_a_removed_one_is_asked_in_the_next_turn) {
  join().conn->answers = {gives_up()};
  join();
  join();
  EXPECT_THAT(notes_of_a_turn(),
              ElementsAre("c1 asked", "c1 on_remove, closed and unregistered", "c1 deleted", "c3 asked"));
  EXPECT_THAT(notes_of_a_turn(), ElementsAre("c2 send 0 from 0 -> 0", "c2 asked", "c3 asked"));
}

// Otherwise its socket would be in no set, and its output would wait until something else happens.
TEST_F(server_list, connection_passed_over_in_the_output_pass_is_ready_for_the_next_wait) {
  join().conn->answers = {gives_up()};
  link& passed_over = join();
  passed_over.conn->answers = {gives("hello")};
  turn();
  EXPECT_TRUE(is_ready(passed_over));
  turn();
  EXPECT_EQ(sockets::num_ready(), 1) << "nothing ended the wait";
  turn();
  passed_over.expect_received("hello");
}

TEST_F(server_list, connection_passed_over_in_the_service_pass_is_ready_for_the_next_wait) {
  for (const way_to_end& w : ways_to_end) {
    w.end(join());
    link& passed_over = join();
    turn();
    EXPECT_TRUE(is_ready(passed_over)) << w.name;
    srv.stop();
    srv.start();
  }
}

TEST_F(server_list, connection_passed_over_in_the_service_pass_is_asked_in_the_output_pass) {
  idle(join(), 11);
  join().deliver("later");
  EXPECT_THAT(notes_of_a_turn(),
              ElementsAre("c1 on_remove, closed and unregistered", "c1 deleted", "c2 asked"));
  EXPECT_THAT(notes_of_a_turn(), ElementsAre("c2 recv 1048576 -> 5", "c2 received later", "c2 asked"));
}

TEST_F(server_list, connection_appended_by_on_recv_is_asked_in_the_same_turn_and_heard_in_the_next) {
  link& a = join();
  a.conn->when_received = [&] {
    link& b = make_outside();
    b.conn->answers = {gives("hello")};
    append(b);
  };
  a.deliver("x");
  EXPECT_THAT(notes_of_a_turn(),
              ElementsAre("c1 recv 1048576 -> 1", "c1 received x", "c1 asked", "c2 asked"));
  turn();
  links.back().expect_received("hello");
}

TEST_F(server_list, connection_appended_by_on_recv_is_visited_by_the_rest_of_the_service_pass) {
  link& a = join();
  std::string message;
  a.conn->when_received = [&] {
    link& b = make_outside();
    append(b);
    idle(b, 11);
    message = line(b, "has timed out");
  };
  a.deliver("x");
  turn();
  expect_console(message);
  EXPECT_EQ(srv.connections.count, 1);
}

TEST_F(server_list, connection_appended_by_on_send_is_asked_in_the_same_pass) {
  join().conn->answers = {[&](char*, int, int*) {
    append(make_outside());
    return true;
  }};
  EXPECT_THAT(notes_of_a_turn(), ElementsAre("c1 asked", "c2 asked"));
}

TEST_F(server_list, connections_of_two_servers_are_serviced_by_their_own_server) {
  journal others;
  recording_server other(0, others);
  link& a = join();
  link& b = make_outside();
  b.conn->notes = &others;
  other.connections.push(b.conn);
  sockets::add(b.conn->sock);
  a.deliver("mine");
  b.deliver("yours");
  notes.clear();
  take_turn(srv, other);
  EXPECT_THAT(notes, testing::Contains("c1 received mine"));
  EXPECT_THAT(notes, testing::Not(testing::Contains("c2 received yours")));
  EXPECT_THAT(others, testing::Contains("c2 received yours"));
}

TEST_F(server_list, ended_socket_is_in_no_set_when_on_remove_is_called) {
  link& a = join();
  a.deliver("x");
  a.deliver_urgent_byte();
  srv.when_called = [&](connection* conn) { expect_in_no_set(conn->sock); };
  turn();
  EXPECT_EQ(srv.connections.count, 0);
}

TEST_F(server_list, reopened_descriptor_is_not_taken_for_ready_in_the_service_pass) {
  for (const way_to_end& w : ways_to_end) {
    SCOPED_TRACE(w.name);
    link& a = join();
    join();
    link& c = join();
    int sock = a.conn->sock;
    a.deliver("x");
    w.end(a);
    c.conn->when_received = [&] {
      if (!is_open(sock)) append(make_outside_on(sock));
    };
    // The socket is in every state at once, and c reads after a has gone. Some ends of a are noticed only in
    // the turn after the one that reads the byte.
    for (int turns = 0; turns < 2 && links.back().conn == c.conn; turns++) {
      sockets::mark_ready(sock);
      c.deliver("x");
      turn();
    }
    recording_connection* reopened = links.back().conn;
    ASSERT_EQ(reopened->sock, sock);
    EXPECT_THAT(notes, testing::Not(testing::Contains(testing::StartsWith(reopened->name + " recv"))));
    EXPECT_THAT(notes, testing::Not(testing::Contains(testing::StartsWith(reopened->name + " send"))));
    EXPECT_THAT(notes, testing::Contains(reopened->name + " asked"));
    EXPECT_EQ(srv.connections.count, 3);
    srv.stop();
    srv.start();
    notes.clear();
  }
}

TEST_F(server_list, reopened_descriptor_is_not_taken_for_ready_after_the_output_pass) {
  join();
  join();
  link& c = join();
  int sock = links[0].conn->sock;
  links[0].conn->answers = {[&](char*, int, int*) {
    sockets::mark_ready(sock);  // as if there were bytes for it
    return false;
  }};
  c.conn->answers = {[&](char*, int, int*) {
    append(make_outside_on(sock));
    return true;
  }};
  turn();
  EXPECT_FALSE(FD_ISSET(sock, sockets::ready()));
}

TEST_F(server_list, client_accepted_on_a_reopened_descriptor_is_not_taken_for_ready) {
  link& a = join();
  int sock = a.conn->sock;
  a.deliver_end();
  client waiting = connect_client();
  sockets::mark_ready(sock);
  notes.clear();
  turn();
  ASSERT_EQ(srv.connections.count, 1);
  EXPECT_EQ(srv.connections.tail->value->sock, sock);
  EXPECT_TRUE(FD_ISSET(sock, sockets::all()));
  expect_in_no_set(sock);
}

TEST_F(server_list, connection_without_a_socket_is_asked_and_timed_out_like_others) {
  auto* conn = srv.make_connection();
  srv.connections.push(conn);
  conn->answers = {gives("to nobody")};
  EXPECT_THAT(notes_of_a_turn(), ElementsAre("c1 asked"));
  EXPECT_THAT(notes_of_a_turn(), IsEmpty());
  conn->last_active -= 11;
  turn();
  expect_console("-1 has timed out.\n");
  EXPECT_EQ(srv.connections.count, 0);
}

}  // namespace
