// The service pass: time-outs, errors, reads and writes.

#include <algorithm>
#include <cerrno>
#include <set>

#include "tests/net/server_fixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class server_service : public server_fixture {
 protected:
  // A client whose connection has `bytes` pending. They go out in the next turn; then `keep` decides.
  link& join_with_output(const std::string& bytes, bool keep = true) {
    link& a = join();
    a.conn->answers = {gives(bytes, keep)};
    turn();
    return a;
  }

  // The client is still connected after 10 silent seconds, and not after 11.
  void expect_time_out_of_a_client_that_joins_at(int64_t time) {
    faults::frozen_clock() = time;
    faults::clock_offset() = 0;
    std::string message = line(join(), "has timed out");
    srv.last_report = time + 60;
    faults::clock_offset() = 10;
    turn();
    expect_console("");
    faults::clock_offset() = 11;
    turn();
    expect_console(message);
  }

  void expect_ended(const link& a, const std::string& printed) {
    EXPECT_THAT(notes,
                ElementsAre(a.conn->name + " on_remove, closed and unregistered", a.conn->name + " deleted"));
    EXPECT_EQ(srv.connections.count, 0);
    expect_console(printed);
  }
};

TEST_F(server_service, connection_times_out_when_it_was_idle_for_longer_than_its_timeout) {
  struct {
    int timeout, idle;
    bool ends;
  } const cases[] = {{10, 10, false}, {10, 11, true},       {1, 1, false},  {1, 2, true},    {0, 0, false},
                     {0, 1, true},    {-1, 1000000, false}, {-7, 9, false}, {10, -60, false}};
  for (const auto& c : cases) {
    link& a = join();
    a.conn->timeout = c.timeout;
    idle(a, c.idle);
    std::string message = line(a, "has timed out");
    turn();
    EXPECT_EQ(srv.connections.count, c.ends ? 0 : 1) << c.idle << " s of " << c.timeout;
    expect_console(c.ends ? message : "");
    srv.stop();
    srv.start();
    screen.clear();
  }
}

TEST_F(server_service, connection_times_out_after_10_seconds_of_silence_by_default) {
  expect_time_out_of_a_client_that_joins_at(start_time);
}

TEST_F(server_service, idle_seconds_are_counted_after_the_time_exceeds_31_bits) {
  for (int beyond : {-3, 1, 1000}) expect_time_out_of_a_client_that_joins_at(int64_t{INT32_MAX} + beyond);
}

TEST_F(server_service, time_out_ends_the_connection) {
  link& a = join();
  idle(a, 11);
  std::string message = line(a, "has timed out");
  notes.clear();
  turn();
  EXPECT_THAT(notes, ElementsAre("c1 on_remove, closed and unregistered", "c1 deleted"));
  expect_console(message);
  a.expect_closed();
}

TEST_F(server_service, connection_is_deleted_when_on_remove_throws) {
  link& a = join();
  idle(a, 11);
  srv.when_called = [](connection*) { throw std::string("no such function"); };
  notes.clear();
  EXPECT_THROW(turn(), std::string);
  EXPECT_THAT(notes, ElementsAre("c1 deleted"));
  EXPECT_EQ(srv.connections.count, 0);
  a.expect_closed();
  srv.when_called = nullptr;
}

TEST_F(server_service, error_condition_ends_the_connection_and_takes_it_off_the_list) {
  link& a = join();
  std::string message = line(a, "has errors");
  a.deliver_urgent_byte();
  EXPECT_THAT(notes_of_a_turn(), ElementsAre("c1 on_remove, closed and unregistered", "c1 deleted"));
  EXPECT_EQ(srv.connections.count, 0);
  expect_console(message);
  a.expect_closed();
  EXPECT_THAT(notes_of_a_turn(), IsEmpty());
}

TEST_F(server_service, time_out_is_handled_before_errors_and_errors_before_bytes) {
  struct {
    int idle;
    bool urgent;
    std::string printed;
  } const cases[] = {{11, true, "has timed out"}, {11, false, "has timed out"}, {0, true, "has errors"}};
  for (const auto& c : cases) {
    link& a = join_with_output("out");
    a.deliver("in");
    if (c.urgent) a.deliver_urgent_byte();
    idle(a, c.idle);
    std::string message = line(a, c.printed);
    std::string name = a.conn->name;
    EXPECT_THAT(notes_of_a_turn(),
                ElementsAre(name + " on_remove, closed and unregistered", name + " deleted"));
    expect_console(message);
  }
}

TEST_F(server_service, readable_connection_is_not_written_in_the_same_turn) {
  link& a = join_with_output("out");
  a.deliver("in");
  EXPECT_THAT(notes_of_a_turn(), ElementsAre("c1 recv 1048576 -> 2", "c1 received in"));
  EXPECT_THAT(notes_of_a_turn(), ElementsAre("c1 send 3 from 0 -> 3", "c1 send 0 from 3 -> 0", "c1 asked"));
}

TEST_F(server_service, silent_connection_is_left_alone) {
  link& a = join();
  idle(a, 5);
  EXPECT_THAT(notes_of_a_turn(), ElementsAre("c1 asked"));
  EXPECT_EQ(a.conn->last_active, start_time - 5);
}

TEST_F(server_service, transport_is_read_until_it_has_no_more) {
  link& a = join();
  a.deliver("x");
  std::deque<std::string> chunks = {"one", "two", "three"};
  srv.receives = [&](connection*, char* buf, int) {
    if (chunks.empty()) return -1;
    int n = static_cast<int>(chunks.front().copy(buf, 100));
    chunks.pop_front();
    return n;
  };
  EXPECT_THAT(
      notes_of_a_turn(),
      ElementsAre("c1 recv 1048576 -> 3", "c1 received one", "c1 recv 1048576 -> 3", "c1 received two",
                  "c1 recv 1048576 -> 5", "c1 received three", "c1 recv 1048576 -> -1", "c1 asked"));
}

TEST_F(server_service, end_after_bytes_in_one_turn_is_seen_in_that_turn) {
  link& a = join();
  a.deliver("x");
  int calls = 0;
  srv.receives = [&](connection*, char* buf, int) {
    buf[0] = 'y';
    return calls++ == 0 ? 1 : 0;
  };
  EXPECT_THAT(notes_of_a_turn(), ElementsAre("c1 recv 1048576 -> 1", "c1 received y", "c1 recv 1048576 -> 0",
                                             "c1 on_remove, closed and unregistered", "c1 deleted"));
}

TEST_F(server_service, all_connections_and_servers_read_into_one_buffer_of_a_megabyte) {
  recording_server other(0, notes);
  link& a = join();
  link& b = make_outside();
  other.connections.push(b.conn);
  sockets::add(b.conn->sock);
  std::set<char*> buffers;
  srv.receives = other.receives = [&](connection*, char* buf, int len) {
    memset(buf, 'x', static_cast<size_t>(len));
    buffers.insert(buf);
    return -1;
  };
  a.deliver("x");
  b.deliver("x");
  turn();
  other.update();
  EXPECT_EQ(buffers.size(), 1u);
}

TEST_F(server_service, socket_is_read_once_a_turn) {
  link& a = join();
  a.deliver("hello");
  faults::calls().clear();
  turn();
  EXPECT_EQ(faults::calls()["recv"], 1);
}

TEST_F(server_service, short_read_means_that_the_socket_is_drained) {
  link& a = join();
  a.deliver("hello");
  char bytes[8];
  errno = 0;
  EXPECT_EQ(srv.server_base::recv(a.conn, bytes, 2), 2);
  EXPECT_EQ(errno, 0) << "there may be more";
  EXPECT_EQ(srv.server_base::recv(a.conn, bytes, 8), 3);
  EXPECT_EQ(errno, EAGAIN);
}

TEST_F(server_service, rest_of_what_is_there_is_read_in_the_next_turn) {
  link& a = join();
  a.deliver("abc");
  faults::most_bytes() = 1;
  for (const char* byte : {"a", "b", "c"})
    EXPECT_THAT(notes_of_a_turn(),
                ElementsAre("c1 recv 1048576 -> 1", std::string("c1 received ") + byte, "c1 asked"));
}

TEST_F(server_service, each_of_two_readable_connections_is_read) {
  link& a = join();
  link& b = join();
  a.deliver("one");
  b.deliver("two");
  EXPECT_THAT(notes_of_a_turn(),
              ElementsAre("c1 recv 1048576 -> 3", "c1 received one", "c2 recv 1048576 -> 3",
                          "c2 received two", "c1 asked", "c2 asked"));
}

TEST_F(server_service, read_bytes_are_an_activity) {
  link& a = join();
  idle(a, 5);
  a.deliver("hello");
  a.conn->when_received = [&] { a.conn->last_active = 0; };  // it is set after the hook
  turn();
  EXPECT_EQ(a.conn->last_active, start_time);
}

// For example while the console is full. The next turn must not count that time as silence.
TEST_F(server_service, time_that_a_hook_takes_is_no_silence_of_its_connection) {
  link& a = join();
  a.deliver("hello");
  a.conn->when_received = [] { faults::clock_offset() += 11; };
  turn();
  EXPECT_EQ(a.conn->last_active, start_time + 11);
  turn();
  EXPECT_EQ(srv.connections.count, 1);
}

TEST_F(server_service, failed_read_is_no_activity_and_keeps_the_connection) {
  for (int error : {EAGAIN, ECONNRESET, EINTR}) {
    link& a = join();
    idle(a, 5);
    a.deliver("x");
    faults::of()["recv"] = {0, 1, error};
    notes.clear();
    turn();
    EXPECT_THAT(notes, ElementsAre(a.conn->name + " recv 1048576 -> -1", a.conn->name + " asked"));
    EXPECT_EQ(a.conn->last_active, start_time - 5);
    srv.stop();
    srv.start();
  }
}

TEST_F(server_service, reset_by_the_client_ends_the_connection_quietly_within_two_turns) {
  link& a = join();
  int sock = a.conn->sock;
  a.remote.close_with_reset();
  ASSERT_TRUE(wait_for(sock, POLLIN));
  turn();
  turn();
  EXPECT_EQ(srv.connections.count, 0);
  expect_console("");
}

TEST_F(server_service, end_of_the_stream_ends_the_connection_quietly) {
  link& a = join();
  a.deliver_end();
  EXPECT_THAT(notes_of_a_turn(),
              ElementsAre("c1 recv 1048576 -> 0", "c1 on_remove, closed and unregistered", "c1 deleted"));
  EXPECT_EQ(srv.connections.count, 0);
  expect_console("");
}

TEST_F(server_service, bytes_before_the_end_are_delivered_first) {
  link& a = join();
  a.deliver("last words");
  a.deliver_end();
  EXPECT_THAT(notes_of_a_turn(), ElementsAre("c1 recv 1048576 -> 10", "c1 received last words", "c1 asked"));
  turn();
  EXPECT_EQ(srv.connections.count, 0);
}

TEST_F(server_service, output_pending_at_the_end_of_the_stream_is_dropped) {
  link& a = join_with_output("never sent");
  a.deliver_end();
  faults::calls().clear();
  turn();
  EXPECT_EQ(srv.connections.count, 0);
  EXPECT_EQ(faults::calls()["send"], 0);
  a.expect_closed();
  a.expect_received("");
}

TEST_F(server_service, output_is_written_until_nothing_is_left) {
  link& a = join_with_output("0123456789");
  faults::most_bytes() = 4;
  EXPECT_THAT(notes_of_a_turn(), ElementsAre("c1 send 10 from 0 -> 4", "c1 send 6 from 4 -> 4",
                                             "c1 send 2 from 8 -> 2", "c1 send 0 from 10 -> 0", "c1 asked"));
  EXPECT_EQ(a.conn->out_len, 0);
  a.expect_received("0123456789");
}

TEST_F(server_service, empty_write_that_ends_the_loop_makes_no_system_call) {
  join_with_output("hello");
  faults::calls().clear();
  turn();
  EXPECT_EQ(faults::calls()["send"], 1);
}

TEST_F(server_service, write_that_takes_nothing_leaves_the_rest_to_the_next_writable_turn) {
  for (int result : {0, -1}) {
    link& a = join_with_output("0123456789");
    std::string name = a.conn->name;
    std::deque<int> results = {6, result};
    srv.sends = [&](connection*, char*, int) {
      int n = results.front();
      results.pop_front();
      return n;
    };
    EXPECT_THAT(notes_of_a_turn(), ElementsAre(name + " send 10 from 0 -> 6",
                                               name + " send 4 from 6 -> " + std::to_string(result)));
    EXPECT_EQ(a.conn->out_len, 4);
    EXPECT_EQ(a.conn->out_pos, 6);
    EXPECT_TRUE(is_ready(a));
    srv.sends = nullptr;
    EXPECT_THAT(notes_of_a_turn(),
                ElementsAre(name + " send 4 from 6 -> 4", name + " send 0 from 10 -> 0", name + " asked"));
    srv.stop();
    srv.start();
  }
}

TEST_F(server_service, output_larger_than_the_socket_takes_arrives_whole) {
  link& a = join();
  std::string big(connection::out_capacity, 'x');
  for (size_t i = 0; i < big.size(); i += 7) big[i] = static_cast<char>('a' + i % 26);
  a.conn->answers = {gives(big)};
  repeat_until(
      [&] {
        turn();
        a.remote.poll();
      },
      [&] { return a.remote.received().size() >= big.size(); });
  EXPECT_TRUE(a.remote.received() == big);
}

TEST_F(server_service, write_pass_is_an_activity_even_if_nothing_was_taken) {
  for (int taken : {0, 3}) {
    link& a = join_with_output("out");
    idle(a, 5);
    if (taken == 0) faults::of()["send"] = {0, 1, EAGAIN};
    turn();
    EXPECT_EQ(a.conn->last_active, start_time) << taken;
  }
}

TEST_F(server_service, time_that_a_write_takes_is_no_silence_of_its_connection) {
  link& a = join_with_output("out");
  srv.sends = [](connection*, char*, int len) {
    faults::clock_offset() += 11;
    return len;
  };
  turn();
  EXPECT_EQ(a.conn->last_active, start_time + 22);
  turn();
  EXPECT_EQ(srv.connections.count, 1);
}

// A connection that a pass has left out is woken, even if it has nothing to send.
TEST_F(server_service, wake_up_without_output_is_no_activity) {
  link& a = join();
  turn();
  idle(a, 5);
  sockets::mark_ready(a.conn->sock);
  EXPECT_THAT(notes_of_a_turn(), ElementsAre("c1 send 0 from 0 -> 0", "c1 asked"));
  EXPECT_EQ(a.conn->last_active, start_time - 5);
}

TEST_F(server_service, connection_that_is_not_kept_ends_when_its_output_is_sent) {
  link& a = join_with_output("goodbye", false);
  EXPECT_FALSE(a.conn->keep);
  EXPECT_EQ(srv.connections.count, 1);
  EXPECT_THAT(notes_of_a_turn(), ElementsAre("c1 send 7 from 0 -> 7", "c1 send 0 from 7 -> 0",
                                             "c1 on_remove, closed and unregistered", "c1 deleted"));
  EXPECT_EQ(srv.connections.count, 0);
  a.expect_received("goodbye");
  a.expect_closed();
}

TEST_F(server_service, connection_that_is_not_kept_stays_while_output_is_left) {
  link& a = join_with_output("goodbye", false);
  faults::most_bytes() = 3;
  faults::of()["send"] = {1, 1, EAGAIN};
  turn();
  EXPECT_EQ(srv.connections.count, 1);
  turn();
  EXPECT_EQ(srv.connections.count, 0);
  faults::most_bytes() = 0;
  a.expect_received("goodbye");
}

TEST_F(server_service, negative_length_never_reaches_the_system_and_stays_pending) {
  link& a = join();
  a.conn->answers = {[](char*, int, int* len) {
    *len = -5;
    return false;
  }};
  a.conn->out_pos = 3;
  turn();
  EXPECT_TRUE(is_ready(a));
  EXPECT_EQ(a.conn->out_pos, 3);
  faults::calls().clear();
  EXPECT_THAT(notes_of_a_turn(), ElementsAre("c1 send -5 from 3 -> 0"));
  ASSERT_EQ(srv.connections.count, 1);
  EXPECT_EQ(faults::calls()["send"], 0);
  EXPECT_EQ(a.conn->out_len, -5);
  EXPECT_TRUE(is_ready(a));
}

TEST_F(server_service, none_is_selected_while_a_client_is_accepted) {
  link& a = join();
  a.deliver_end();
  client c = connect_client();
  std::vector<connection*> seen;
  srv.when_created = [&] { seen.push_back(connection::selected()); };
  turn();
  EXPECT_THAT(seen, ElementsAre(nullptr)) << "the last one serviced has been deleted";
}

TEST_F(server_service, none_is_selected_after_a_turn_that_a_thrown_text_has_ended) {
  link& a = join();
  a.conn->answers = {[](char*, int, int*) -> bool { throw std::string("text"); }};
  EXPECT_THROW(turn(), std::string);
  EXPECT_EQ(connection::selected(), nullptr);
}

TEST_F(server_service, connection_is_selected_while_it_is_serviced_and_none_after_the_turn) {
  link& a = join_with_output("out");
  link& b = join();
  link& c = join();
  b.deliver("in");
  idle(c, 11);
  std::vector<connection*> seen;
  srv.when_called = [&](connection* conn) {
    EXPECT_EQ(connection::selected(), conn);
    seen.push_back(conn);
  };
  b.conn->when_received = [&] { EXPECT_EQ(connection::selected(), b.conn); };
  a.conn->answers = {[&](char*, int, int*) {
    EXPECT_EQ(connection::selected(), a.conn);
    return true;
  }};
  turn();
  EXPECT_THAT(seen, ElementsAre(a.conn, a.conn, b.conn, c.conn));
  EXPECT_EQ(connection::selected(), nullptr);
}

}  // namespace
