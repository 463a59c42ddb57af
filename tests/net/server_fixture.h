/* server_fixture: a listening server, its clients, and the vocabulary of the tests about them. The clock
 * stands still, and the server has just reported its count, so only what a test provokes is printed.
 *
 *     link& a = join();                    a client that is accepted; a.remote and a.conn are the two ends
 *     client c = connect_client();         a client that waits to be accepted
 *     append(make_outside());              a connection that the server did not accept joins its list
 *     a.deliver("...");                    the client sends bytes
 *     a.deliver_urgent_byte();             it sends an urgent byte
 *     a.deliver_end();                     it ends its side of the stream
 *     idle(a, 11);                         it has been silent for 11 seconds
 *     turn();                              one wait, one update
 *     notes_of_a_turn()                    which hooks a turn has called
 *     a.expect_received("...");            the client gets these bytes
 *     a.expect_closed();                   the client sees the end of the stream
 *     is_ready(a)                          whether the next wait asks for its output
 *     expect_console(line(a, "..."));      what was printed since the last time; here a line about `a`
 *
 * See recording_server.h for what connections give, and turns.h for turns of other servers. */
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <deque>
#include <string>

#include "net/sockets.h"
#include "tests/net/recording_server.h"
#include "tests/support/client.h"
#include "tests/support/console.h"
#include "tests/support/faults.h"
#include "tests/support/turns.h"

class server_fixture : public testing::Test {
 protected:
  static constexpr int64_t start_time = 1700000000;

  /* A client and the connection that the server has for it; `conn` dangles after the connection has ended. */
  struct link {
    client remote;
    recording_connection* conn;

    void deliver(const std::string& bytes) { ASSERT_TRUE(send_and_wait(remote, conn->sock, bytes)); }
    void deliver_urgent_byte() {
      ::send(remote.sock(), "!", 1, MSG_OOB);
      ASSERT_TRUE(wait_for(conn->sock, POLLPRI));
    }
    void deliver_end() {
      remote.shutdown_write();
      ASSERT_TRUE(wait_for(conn->sock, POLLIN));
    }
    void expect_received(const std::string& bytes) {
      repeat_until([&] { remote.poll(); },
                   [&] { return remote.received().size() >= bytes.size() || remote.is_closed(); });
      EXPECT_EQ(remote.received(), bytes);
      remote.forget_received();
    }
    void expect_closed() {
      EXPECT_TRUE(repeat_until([&] { remote.poll(); }, [&] { return remote.is_closed(); }));
    }
  };

  void SetUp() override {
    faults::frozen_clock() = start_time;
    ASSERT_TRUE(srv.start());
    srv.last_report = start_time;
    srv.last_count = 0;
    notes.clear();
    screen.clear();
  }

  void TearDown() override {
    faults::clear();
    sockets::num_ready() = 0;
  }

  void turn() { take_turn(srv); }

  /* Takes a turn. The result has the calls of this turn only. */
  const journal& notes_of_a_turn() {
    notes.clear();
    turn();
    return notes;
  }

  /* A client that waits to be accepted. */
  client connect_client() {
    client c(srv.port);
    EXPECT_TRUE(wait_for(srv.sock, POLLIN));
    return c;
  }

  /* A client that the server has accepted without a turn: it has not been asked for output yet. */
  link& join() {
    links.push_back({connect_client(), nullptr});
    EXPECT_TRUE(srv.accept_connection());
    links.back().conn = static_cast<recording_connection*>(srv.connections.tail->value);
    return links.back();
  }

  /* A connection that the server did not accept, on one end of a socket pair; not in the list yet. Its
   * other end is a link's client. */
  link& make_outside() {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends), 0);
    links.push_back({client::from_socket(ends[0]), srv.make_connection()});
    links.back().conn->sock = ends[1];
    return links.back();
  }

  void append(link& l) {
    srv.connections.push(l.conn);
    FD_SET(l.conn->sock, sockets::all());
  }

  /* Makes the connection `seconds` idle. */
  static void idle(link& l, int seconds) {
    l.conn->last_active = static_cast<int32_t>(start_time + faults::clock_offset() - seconds);
  }

  static bool is_ready(const link& l) { return FD_ISSET(l.conn->sock, sockets::ready()); }

  void expect_console(const std::string& text) {
    EXPECT_EQ(screen.text(), text);
    if (!HasFailure()) screen.clear();  // GoogleTest's report of the failure is in there
  }

  /* The line that names the connection. */
  static std::string line(const link& l, const std::string& what) {
    return std::to_string(l.conn->sock) + " " + what + ".\n";
  }

  console screen;
  journal notes;
  std::deque<link> links;
  recording_server srv{free_port(), notes};
};
