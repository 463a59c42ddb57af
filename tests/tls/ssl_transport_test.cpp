// Connections of the TLS server, turn by turn.

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <functional>

#include "tests/tls/ssl_server_fixture.h"

namespace {

using session = fake_openssl::session;

constexpr int fruitless_turns = 64;  // in a row, after which a session that does not ask to wait is dead

struct tls_transport : ssl_server_fixture {
  tls_transport() { listen(); }

  /* An accepted client. The calls of its handshake are removed from the notes. */
  client join_quietly() {
    client c = join();
    tls.take_notes();
    return c;
  }

  /* SSL_read() gives these texts one by one, and then always `last`. It does not touch the socket. */
  void script_reads(std::vector<std::string> texts, int last = -1) {
    tls.reads = [=](session&, char* buf, int) mutable {
      if (texts.empty()) return last;
      int n = static_cast<int>(texts.front().copy(buf, std::string::npos));
      texts.erase(texts.begin());
      return n;
    };
  }

  /* The session reads up to `most` bytes from the socket and gives none, as in a handshake. */
  void swallow(size_t most) {
    tls.reads = [=](session& s, char*, int) {
      std::string bytes(most, '\0');
      ssize_t n = ::recv(s.sock, bytes.data(), most, 0);
      return n == 0 ? 0 : -1;
    };
  }

  bool is_served() const { return srv->connections.count == 1; }

  /* Expects that 64 turns find the session dead, and that one more ends the connection by its time-out. */
  void expect_death(client& remote) {
    const std::string line = time_out_line(conn->sock);
    for (int i = 0; i < fruitless_turns; i++) turn();
    EXPECT_TRUE(is_served()) << "it ended a turn too early";
    expect_console("");
    turn();
    EXPECT_FALSE(is_served());
    expect_console(line);
    EXPECT_TRUE(repeat_until([&] { remote.poll(); }, [&] { return remote.is_closed(); }));
  }

  void expect_life(int turns) {
    for (int i = 0; i < turns; i++) turn();
    EXPECT_TRUE(is_served());
    expect_console("");
  }
};

const std::string read_call = "SSL_read(s1, 1048576) -> ";

}  // namespace

TEST_F(tls_transport, accepted_client_gets_a_session_on_a_socket_that_does_not_block) {
  bool was_blocking = true;
  tls.replace(openssl::SSL_accept, [](void* ssl) {
    const int flags = fcntl(static_cast<session*>(ssl)->sock, F_GETFL);
    fake_openssl::note(flags & O_NONBLOCK ? "accepted without blocking" : "accepted, blocking");
    return -1;
  });
  client c = join();
  was_blocking = tls.notes.back() != "accepted without blocking";
  EXPECT_FALSE(was_blocking);
  EXPECT_TRUE(is_served());
}

TEST_F(tls_transport, refused_client_is_closed_silently) {
  for (bool has_context : {false, true}) {
    srv->ctx = has_context ? fake_openssl::context() : nullptr;
    tls.gives_session = false;
    client c = join();
    EXPECT_EQ(srv->connections.count, 0);
    EXPECT_TRUE(repeat_until([&] { c.poll(); }, [&] { return c.is_closed(); }));
    EXPECT_EQ(c.received(), "");
  }
  expect_notes({"connection deleted", "SSL_new(ctx)", "connection deleted"});
  expect_console("");
}

TEST_F(tls_transport, decrypted_bytes_are_drained_in_one_turn) {
  client c = join_quietly();
  script_reads({"first", "second", "third"});
  deliver(c, "x");
  turn();
  expect_notes({read_call + "5", "on_recv first", read_call + "6", "on_recv second", read_call + "5",
                "on_recv third", read_call + "-1"});
}

TEST_F(tls_transport, reading_0_ends_the_connection_and_then_its_session) {
  client c = join_quietly();
  tls.replace(openssl::SSL_shutdown, [](void* ssl) {
    const int sock = static_cast<session*>(ssl)->sock;
    fake_openssl::note(fcntl(sock, F_GETFD) == -1 ? "shut down on a closed socket" : "shut down too early");
    fake_openssl::note(sockets::has(sockets::all(), sock) ? "still registered" : "unregistered");
    return 1;
  });
  script_reads({}, 0);
  deliver(c, "x");
  turn();
  expect_notes({read_call + "0", "shut down on a closed socket", "unregistered", "SSL_free(s1)",
                "connection deleted"});
  expect_console("");
}

TEST_F(tls_transport, partial_writes_are_continued_from_the_same_buffer) {
  client c = join_quietly();
  conn->answer = "0123456789";
  tls.writes = [](session& s, char* buf, int len) {
    return static_cast<int>(::send(s.sock, buf, static_cast<size_t>(len > 4 ? 4 : len), 0));
  };
  turn();
  turn();
  EXPECT_TRUE(repeat_until([&] { c.poll(); }, [&] { return c.received().size() >= 10; }));
  EXPECT_EQ(c.received(), "0123456789");
  EXPECT_EQ(tls.notes, (std::vector<std::string>{"SSL_write(s1, 10) -> 4", "SSL_write(s1, 6) -> 4",
                                                 "SSL_write(s1, 2) -> 2", "SSL_write(s1, 0) -> 0"}));
}

TEST_F(tls_transport, write_that_is_not_taken_is_repeated_with_the_same_bytes) {
  client c = join_quietly();
  conn->answer = "hello";
  auto send_for_real = tls.writes;
  tls.writes = [](session&, char*, int) { return -1; };
  turn();
  turn();
  EXPECT_EQ(tls.last_buffer, conn->out);
  tls.writes = send_for_real;
  turn();
  EXPECT_TRUE(repeat_until([&] { c.poll(); }, [&] { return c.received().size() >= 5; }));
  EXPECT_EQ(c.received(), "hello");
}

// Such a session leaves its socket writable for ever. A loop that waits for it would spin.
TEST_F(tls_transport, session_that_refuses_every_write_is_ended_through_the_time_out) {
  client c = join_quietly();
  conn->answer = "hello";
  const int sock = conn->sock;
  int writes = 0;
  tls.writes = [&writes](session&, char*, int) {
    writes++;
    return -1;
  };
  console out;
  EXPECT_TRUE(repeat_until([&] { turn(); }, [&] { return srv->connections.count == 0; }));
  EXPECT_EQ(out.text(), time_out_line(sock));
  EXPECT_EQ(writes, fruitless_turns);
}

TEST_F(tls_transport, refused_writes_are_counted_from_the_last_accepted_write) {
  client c = join_quietly();
  auto send_for_real = tls.writes;
  for (int round = 0; round < 3; round++) {
    conn->answer = "hello";
    int refusals = fruitless_turns - 1;
    tls.writes = [&](session& s, char* buf, int len) {
      return refusals-- > 0 ? -1 : send_for_real(s, buf, len);
    };
    c.forget_received();
    EXPECT_TRUE(repeat_until([&] { turn(), c.poll(); }, [&] { return c.received() == "hello"; }));
  }
}

TEST_F(tls_transport, session_that_takes_its_bytes_lives_however_slowly_they_come) {
  client c = join_quietly();
  swallow(1);
  for (int i = 0; i < 20; i++) {
    deliver(c, "x");
    expect_life(1);
  }
}

TEST_F(tls_transport, session_that_takes_a_part_of_what_is_there_lives) {
  client c = join_quietly();
  swallow(3);
  deliver(c, "0123456789ABCDEF");
  for (int i = 0; i < 5; i++) expect_life(1);
  EXPECT_LT(unread_bytes(), 4);
}

TEST_F(tls_transport, bytes_that_come_after_the_first_read_are_no_sign_of_death) {
  client c = join_quietly();
  bool is_first = true;
  tls.reads = [&](session& s, char* buf, int len) {
    if (std::exchange(is_first, false)) return -1;
    return static_cast<int>(::recv(s.sock, buf, static_cast<size_t>(len), 0));
  };
  deliver(c, "late");
  expect_life(3);
  EXPECT_EQ(conn->received, "late");
}

TEST_F(tls_transport, silent_client_lives_until_the_idle_time_out) {
  client c = join_quietly();
  faults::clock_offset() = 10;
  expect_life(2);
  expect_notes({});
  faults::clock_offset() = 11;
  const std::string line = time_out_line(conn->sock);
  turn();
  EXPECT_FALSE(is_served());
  expect_console(line);
}

TEST_F(tls_transport, session_that_leaves_bytes_and_does_not_ask_the_system_is_dead) {
  client c = join_quietly();
  script_reads({});
  deliver(c, "not a handshake");
  expect_death(c);
}

// A session whose record is not complete leaves bytes in this way, however fast the next bytes come.
TEST_F(tls_transport, session_that_leaves_bytes_after_eagain_lives) {
  client c = join_quietly();
  tls.reads = [](session&, char*, int) {
    errno = EAGAIN;
    return -1;
  };
  deliver(c, "the beginning of a record");
  expect_life(3 * fruitless_turns);
}

TEST_F(tls_transport, session_whose_writes_are_refused_by_the_system_lives) {
  client c = join_quietly();
  conn->answer = "hello";
  auto send_for_real = tls.writes;
  tls.writes = [](session&, char*, int) {
    errno = EAGAIN;
    return -1;
  };
  expect_life(fruitless_turns + 10);
  tls.writes = send_for_real;
  EXPECT_TRUE(repeat_until([&] { turn(), c.poll(); }, [&] { return c.received() == "hello"; }));
}

TEST_F(tls_transport, session_after_the_end_of_the_stream_is_dead) {
  client c = join_quietly();
  script_reads({});
  c.shutdown_write();
  EXPECT_TRUE(wait_for(conn->sock, POLLIN));
  expect_death(c);
}

TEST_F(tls_transport, session_after_the_end_of_the_stream_is_read_only_once) {
  client c = join_quietly();
  script_reads({});
  c.shutdown_write();
  EXPECT_TRUE(wait_for(conn->sock, POLLIN));
  turn();
  expect_notes({read_call + "-1"});
}

TEST_F(tls_transport, session_on_a_reset_socket_is_dead) {
  client c = join_quietly();
  script_reads({});
  c.close_with_reset();
  EXPECT_TRUE(wait_for(conn->sock, POLLIN));
  expect_death(c);
}

TEST_F(tls_transport, dead_session_ends_though_its_connection_has_no_time_out) {
  client c = join_quietly();
  conn->timeout = -1;
  script_reads({});
  deliver(c, "not a handshake");
  expect_death(c);
}

TEST_F(tls_transport, dead_session_is_noticed_after_bytes_that_were_good) {
  client c = join_quietly();
  script_reads({"good"});
  deliver(c, "x");
  expect_life(1);
  EXPECT_EQ(conn->received, "good");
  expect_death(c);
}

TEST_F(tls_transport, dead_session_is_shut_down_and_freed_like_any_other) {
  client c = join_quietly();
  script_reads({});
  deliver(c, "not a handshake");
  for (int i = 0; i < fruitless_turns; i++) turn();
  tls.take_notes();
  turn();
  expect_notes({"SSL_shutdown(s1)", "SSL_free(s1)", "connection deleted"});
}

TEST_F(tls_transport, dying_session_leaves_the_others_alone) {
  client good = join_quietly();
  talker* const good_conn = conn;
  client bad = join();
  auto read_for_real = tls.reads;
  tls.reads = [=](session& s, char* buf, int len) {
    return s.name == "s2" ? -1 : read_for_real(s, buf, len);
  };
  deliver(bad, "x");
  for (int i = 0; i <= fruitless_turns; i++) turn();
  EXPECT_TRUE(is_served());
  conn = good_conn;
  deliver(good, "hello");
  turn();
  EXPECT_EQ(conn->received, "hello");
}

TEST_F(tls_transport, destroyed_server_frees_its_context_first_and_sends_nothing) {
  client first = join_quietly();
  client second = join_quietly();
  srv.reset();
  expect_notes({"SSL_CTX_free(ctx)", "connection deleted", "connection deleted"});
  for (client* c : {&first, &second}) {
    EXPECT_TRUE(repeat_until([&] { c->poll(); }, [&] { return c->is_closed(); }));
    EXPECT_EQ(c->received(), "");
  }
}
