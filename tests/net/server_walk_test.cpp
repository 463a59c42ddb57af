// How a server treats sockets that are ready: how much it reads in a pass, and what happens to a connection
// whose socket is ready although its transport moves nothing.

#include <cerrno>
#include <cstring>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "tests/net/server_fixture.h"

namespace {

using testing::ElementsAre;

constexpr int most_reads = 64;       // in a pass, from one connection
constexpr int fruitless_turns = 64;  // in a row; a connection survives one less
constexpr int megabyte = 1048576;

class server_walk : public server_fixture {
 protected:
  /* A transport that moves nothing and sets errno to `cause`, as the system would. 0: errno stays as it is,
   * as if the system had not been called. */
  static recording_server::transport moves_nothing(int cause) {
    return [=](connection*, char*, int) {
      if (cause != 0) errno = cause;
      return -1;
    };
  }

  /* A connection with something to read, which nobody reads. */
  link& join_readable() {
    link& a = join();
    a.deliver("x");
    return a;
  }

  /* A connection with something to write. */
  link& join_writable() {
    link& a = join();
    a.conn->answers = {gives("out")};
    turn();
    return a;
  }

  void turns(int count) {
    for (int i = 0; i < count; i++) turn();
  }

  /* The connection lives until the last of `count` turns, which ends it by its time-out. */
  void expect_time_out_after(link& a, int count) {
    const std::string message = line(a, "has timed out");
    turns(count - 1);
    EXPECT_EQ(srv.connections.count, 1);
    expect_console("");
    turn();
    EXPECT_EQ(srv.connections.count, 0);
    expect_console(message);
  }

  /* The number of turns, out of `count`, in which select() reports the socket of `a` in `result`. */
  int count_reports(link& a, fd_set* (*result)(), int count) {
    int reports = 0;
    for (int i = 0; i < count; i++) {
      turn();
      reports += FD_ISSET(a.conn->sock, result()) ? 1 : 0;
    }
    return reports;
  }
};

}  // namespace

TEST_F(server_walk, pass_reads_64_times_at_most_and_the_rest_in_the_next_turn_without_a_wait) {
  link& a = join_readable();
  int left = most_reads + 3;  // pieces that the transport has taken off the socket already
  srv.receives = [&](connection* conn, char* buf, int len) {
    if (left == most_reads + 3 && ::recv(conn->sock, buf, 1, 0) != 1) return 0;
    return left-- > 0 ? 1 : moves_nothing(EAGAIN)(conn, buf, len);
  };
  int received = 0;
  a.conn->when_received = [&] { received++; };
  turn();
  EXPECT_EQ(received, most_reads);
  turn();
  EXPECT_EQ(faults::last_select().wait_us, 0);
  EXPECT_EQ(received, most_reads + 3);
  turn();
  EXPECT_EQ(faults::last_select().wait_us, 100000) << "nothing is left";
}

TEST_F(server_walk, pass_reads_a_megabyte_at_most_from_one_connection) {
  link& a = join_readable();
  constexpr int piece = 400000;
  srv.receives = [](connection*, char* buf, int) {
    memset(buf, 'x', piece);
    return piece;
  };
  a.conn->notes = nullptr;
  int received = 0;
  a.conn->when_received = [&] { received++; };
  turn();
  EXPECT_EQ(received, 1 + megabyte / piece) << "the piece that reaches the megabyte is the last";
}

TEST_F(server_walk, ready_connections_share_a_megabyte_of_a_pass_but_get_64_kib_at_least) {
  constexpr int piece = 16384;
  std::map<connection*, int> received;
  srv.receives = [&](connection* conn, char* buf, int) {
    memset(buf, 'x', piece);
    received[conn] += piece;
    return piece;
  };
  const std::pair<int, int> shares[] = {{1, megabyte}, {4, megabyte / 4}, {32, 65536}};
  int joined = 0;
  for (auto [count, share] : shares) {
    for (; joined < count; joined++) join_readable().conn->notes = nullptr;
    received.clear();
    turn();
    EXPECT_EQ(received.size(), static_cast<size_t>(count));
    for (auto [conn, bytes] : received) EXPECT_EQ(bytes, share) << count << " connections";
  }
}

TEST_F(server_walk, sockets_that_hold_more_than_their_share_are_read_on_in_a_turn_that_follows_at_once) {
  std::map<connection*, int> pieces;
  for (int i = 0; i < 16; i++) {
    link& a = make_outside();
    srv.add_connection(a.conn);
    a.conn->notes = nullptr;
    a.conn->when_received = [&pieces, conn = a.conn] { pieces[conn]++; };
    a.deliver(std::string(65536 + 5, 'x'));
  }
  turn();
  EXPECT_EQ(pieces.size(), 16u);
  for (auto [conn, count] : pieces) EXPECT_EQ(count, 1);
  turn();
  EXPECT_EQ(faults::last_select().wait_us, 0);
  for (auto [conn, count] : pieces) EXPECT_EQ(count, 2);
  turn();
  EXPECT_EQ(faults::last_select().wait_us, 100000) << "nothing is left";
}

TEST_F(server_walk, transport_that_asks_to_wait_after_a_read_is_not_asked_again_in_the_pass) {
  for (int cause : {EAGAIN, EINTR}) {
    link& a = join_readable();
    srv.receives = [=](connection*, char* buf, int) {
      buf[0] = 'y';
      errno = cause;
      return 1;
    };
    const std::string name = a.conn->name;
    EXPECT_THAT(notes_of_a_turn(),
                ElementsAre(name + " recv 1048576 -> 1", name + " received y", name + " asked"));
    srv.stop();
    srv.start();
  }
}

TEST_F(server_walk, errno_is_cleared_before_each_read) {
  link& a = join_readable();
  std::vector<int> found;
  int left = 3;
  srv.receives = [&](connection*, char*, int) {
    found.push_back(errno);
    return left-- > 0 ? 1 : -1;
  };
  a.conn->when_received = [] { errno = EAGAIN; };
  turn();
  EXPECT_THAT(found, ElementsAre(0, 0, 0, 0));
}

TEST_F(server_walk, errno_is_cleared_before_each_write) {
  std::vector<int> found;
  srv.sends = [&](connection*, char*, int len) {
    found.push_back(std::exchange(errno, EAGAIN));
    return len > 1 ? 1 : -1;
  };
  join_writable();
  turn();
  EXPECT_THAT(found, ElementsAre(0, 0, 0));
}

// Such a socket stays ready for ever. A loop that waits for it would spin.
TEST_F(server_walk, readable_connection_whose_transport_gives_nothing_and_does_not_wait_is_timed_out) {
  for (int cause : {0, ECONNRESET}) {
    link& a = join_readable();
    srv.receives = moves_nothing(cause);
    expect_time_out_after(a, fruitless_turns + 1);
  }
}

TEST_F(server_walk, readable_connection_whose_recv_always_fails_is_timed_out) {
  link& a = join_readable();
  faults::of()["recv"] = {0, fruitless_turns, ENOTCONN};
  expect_time_out_after(a, fruitless_turns + 1);
}

TEST_F(server_walk, writable_connection_whose_transport_takes_nothing_and_does_not_wait_is_timed_out) {
  for (int cause : {0, EPIPE}) {
    srv.sends = moves_nothing(cause);
    link& a = join_writable();
    expect_time_out_after(a, fruitless_turns + 1);
  }
}

TEST_F(server_walk, dead_connection_is_ended_even_if_it_has_no_time_out_and_the_clock_steps_back) {
  link& a = join_readable();
  a.conn->timeout = -1;
  srv.receives = moves_nothing(0);
  turns(fruitless_turns);
  faults::clock_offset() = -1;
  turn();
  EXPECT_EQ(srv.connections.count, 0);
}

TEST_F(server_walk, dead_connection_is_ended_a_turn_later_if_the_clock_steps_back_far) {
  join_readable();
  srv.receives = moves_nothing(0);
  turns(fruitless_turns);
  faults::clock_offset() = -3600;
  turns(2);
  EXPECT_EQ(srv.connections.count, 0);
}

TEST_F(server_walk, connection_that_asks_to_wait_lives_however_often) {
  for (int cause : {EAGAIN, EINTR}) {
    join_readable();
    srv.receives = moves_nothing(cause);
    turns(10 * fruitless_turns);
    EXPECT_EQ(srv.connections.count, 1);
    expect_console("");
    srv.stop();
    srv.start();
    screen.clear();
  }
}

TEST_F(server_walk, connection_that_asks_to_wait_before_it_writes_lives_however_often) {
  for (int cause : {EAGAIN, EINTR}) {
    srv.sends = moves_nothing(cause);
    join_writable();
    turns(fruitless_turns + 10);
    EXPECT_EQ(srv.connections.count, 1);
    expect_console("");
    srv.stop();
    srv.start();
    screen.clear();
  }
}

TEST_F(server_walk, fruitless_turns_count_from_the_last_byte_read) {
  link& a = join_readable();
  for (int round = 0; round < 3; round++) {
    srv.receives = moves_nothing(0);
    turns(fruitless_turns - 1);
    bool is_first = true;
    srv.receives = [&](connection*, char*, int) { return std::exchange(is_first, false) ? 1 : -1; };
    turn();
  }
  srv.receives = moves_nothing(0);
  expect_time_out_after(a, fruitless_turns + 1);
}

TEST_F(server_walk, fruitless_turns_count_from_the_last_byte_written) {
  srv.sends = moves_nothing(0);
  link& a = join_writable();
  for (int round = 0; round < 3; round++) {
    turns(fruitless_turns - 1);
    bool is_first = true;
    srv.sends = [&](connection*, char*, int) { return std::exchange(is_first, false) ? 1 : -1; };
    a.conn->out_len = 2;  // it is never sent completely
    turn();
    srv.sends = moves_nothing(0);
  }
  expect_time_out_after(a, fruitless_turns + 1);
}

// A session may ask to wait in many turns, and then not ask in one turn. Then only this one turn counts
// against the connection.
TEST_F(server_walk, turns_that_asked_to_wait_do_not_count_against_a_connection) {
  link& a = join_readable();
  srv.receives = moves_nothing(EAGAIN);
  turns(2 * fruitless_turns);
  srv.receives = moves_nothing(0);
  expect_time_out_after(a, 1 + fruitless_turns + 1);  // the first turn does not read
}

TEST_F(server_walk, turns_that_count_against_a_connection_are_counted_anew_after_one_that_asked_to_wait) {
  link& a = join_readable();
  srv.receives = moves_nothing(0);
  turns(fruitless_turns / 2);
  srv.receives = moves_nothing(EAGAIN);
  turn();
  srv.receives = moves_nothing(0);
  expect_time_out_after(a, fruitless_turns + 1);
}

TEST_F(server_walk, connection_whose_length_is_negative_is_timed_out_and_does_not_spin) {
  link& a = join();
  a.conn->timeout = -1;
  a.conn->out_len = -1;
  turn();
  expect_time_out_after(a, fruitless_turns + 1);
}

// select() does not see the bytes that the transport holds. They have to be announced again for the next
// wait.
TEST_F(server_walk, unread_bytes_of_a_connection_that_is_passed_over_are_read_in_the_next_turn) {
  link& leaver = join();
  link& a = join();
  int left = most_reads + 3;
  srv.receives = [&](connection* conn, char* buf, int len) {
    if (conn != a.conn) return srv.server_base::recv(conn, buf, len);
    if (left == most_reads + 3 && ::recv(conn->sock, buf, 1, 0) != 1) return 0;
    return left-- > 0 ? 1 : moves_nothing(EAGAIN)(conn, buf, len);
  };
  int received = 0;
  a.conn->when_received = [&] { received++; };
  a.deliver("x");
  turn();
  EXPECT_EQ(received, most_reads);
  leaver.deliver_end();
  turn();
  EXPECT_EQ(received, most_reads) << "it was passed over";
  turn();
  EXPECT_EQ(received, most_reads + 3);
}

// A session that cannot read before it has written leaves its socket readable as long as it cannot write.
TEST_F(server_walk, reading_that_gives_nothing_is_left_out_of_every_other_wait) {
  link& a = join_readable();
  srv.receives = moves_nothing(EAGAIN);
  EXPECT_EQ(count_reports(a, sockets::readable, fruitless_turns), fruitless_turns);
  EXPECT_EQ(count_reports(a, sockets::readable, 10), 5);
  EXPECT_EQ(count_reports(a, sockets::readable, 1000), 500) << "the count overflowed";
  srv.receives = nullptr;
  turns(2);
  EXPECT_EQ(a.conn->fruitless, 0);
}

// Such a wait lasts until the socket takes what the session has to write.
TEST_F(server_walk, wait_without_reading_ends_when_the_socket_is_writable) {
  link& a = join_readable();
  srv.receives = moves_nothing(EAGAIN);
  turns(fruitless_turns);
  turn();
  EXPECT_TRUE(FD_ISSET(a.conn->sock, sockets::writable()));
  EXPECT_FALSE(FD_ISSET(a.conn->sock, sockets::readable()));
}

// A session that cannot write before it has read leaves its socket writable for ever.
TEST_F(server_walk, writing_that_moves_nothing_is_left_out_of_every_other_wait) {
  srv.sends = moves_nothing(EAGAIN);
  link& a = join_writable();
  EXPECT_EQ(count_reports(a, sockets::writable, fruitless_turns), fruitless_turns);
  EXPECT_EQ(count_reports(a, sockets::writable, 10), 5);
  bool is_first = true;
  srv.sends = [&](connection* conn, char* buf, int len) {
    if (!std::exchange(is_first, false)) return moves_nothing(EAGAIN)(conn, buf, len);
    return srv.server_base::send(conn, buf, 1);
  };
  turn();  // this one leaves the writing out, too
  EXPECT_EQ(count_reports(a, sockets::writable, 1 + fruitless_turns), 1 + fruitless_turns)
      << "the turns count from the last byte written";
  srv.sends = nullptr;
  turns(2);
  a.expect_received("out");
}

TEST_F(server_walk, closed_connection_is_ended_in_the_turn_after_the_one_that_read_its_last_bytes) {
  link& a = join();
  a.deliver("last");
  a.deliver_end();
  turns(2);
  EXPECT_EQ(srv.connections.count, 0);
  EXPECT_EQ(sockets::num_ready(), 1) << "the second turn did not wait";
}
