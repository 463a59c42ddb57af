/* server_fixture: a listening server, its clients, and the words of the tests about them. The clock stands
 * still, and the server has just reported its count, so nothing is printed that a test does not ask for. */
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <deque>
#include <string>

#include "net/sockets.h"
#include "tests/net/recording_server.h"
#include "tests/support/client.h"
#include "tests/support/console.h"
#include "tests/support/faults.h"

/* Waits until poll() reports one of `events` for `sock`; false after 10 s. */
inline bool wait_for(int sock, short events) {
  pollfd p = {sock, events, 0};
  return ::poll(&p, 1, 10000) == 1;
}

class server_fixture : public testing::Test {
 protected:
  static constexpr int64_t start_time = 1700000000;

  /* A client and the connection that the server has for it; `conn` dangles once it has ended. */
  struct link {
    client remote;
    recording_connection* conn;

    void deliver(const std::string& bytes) {
      remote.send(bytes);
      int there = 0;
      ASSERT_TRUE(repeat_until([&] { ioctl(conn->sock, FIONREAD, &there); },
                               [&] { return there >= static_cast<int>(bytes.size()); }));
    }
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

  void turn() {
    sockets::select_all();
    srv.update();
  }

  /* A turn of which only these calls are noted, and nothing of what was before. */
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
