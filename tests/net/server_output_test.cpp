// The output pass, and the report of the number of connections.

#include "tests/net/server_fixture.h"

namespace {

using testing::ElementsAre;

class server_output : public server_fixture {};

TEST_F(server_output, connection_is_asked_with_its_buffer_its_capacity_and_its_length) {
  link& a = join();
  bool asked = false;
  a.conn->answers = {[&](char* buf, int cap, int* len) {
    EXPECT_EQ(buf, a.conn->out);
    EXPECT_EQ(cap, 1048576);
    EXPECT_EQ(len, &a.conn->out_len);
    EXPECT_EQ(*len, 0);
    return asked = true;
  }};
  turn();
  EXPECT_TRUE(asked);
}

TEST_F(server_output, output_takes_two_turns) {
  link& a = join();
  a.conn->answers = {gives("hello")};
  EXPECT_THAT(notes_of_a_turn(), ElementsAre("c1 asked"));
  EXPECT_EQ(faults::calls()["send"], 0);
  EXPECT_TRUE(is_ready(a));
  EXPECT_THAT(notes_of_a_turn(), ElementsAre("c1 send 5 from 0 -> 5", "c1 send 0 from 5 -> 0", "c1 asked"));
  a.expect_received("hello");
}

TEST_F(server_output, output_starts_at_the_front_of_the_buffer) {
  link& a = join();
  a.conn->answers = {gives("first"), gives("second")};
  turn();
  turn();
  EXPECT_EQ(a.conn->out_pos, 0);
  EXPECT_EQ(a.conn->out_len, 6);
  turn();
  a.expect_received("firstsecond");
}

TEST_F(server_output, connection_with_nothing_to_say_stays_and_is_asked_every_turn) {
  link& a = join();
  for (int i = 0; i < 3; i++) {
    EXPECT_THAT(notes_of_a_turn(), ElementsAre("c1 asked"));
    EXPECT_FALSE(is_ready(a));
  }
  EXPECT_TRUE(a.conn->keep);
}

TEST_F(server_output, keep_is_what_the_connection_answered) {
  link& a = join();
  a.conn->answers = {gives("x", false)};
  turn();
  EXPECT_FALSE(a.conn->keep);
  a.conn->keep = true;
  turn();
  a.conn->keep = false;
  turn();
  EXPECT_TRUE(a.conn->keep);
}

TEST_F(server_output, connection_with_nothing_more_to_say_ends_at_once) {
  link& a = join();
  a.conn->answers = {gives_up()};
  EXPECT_THAT(notes_of_a_turn(),
              ElementsAre("c1 asked", "c1 on_remove, closed and unregistered", "c1 deleted"));
  EXPECT_EQ(srv.connections.count, 0);
  a.expect_closed();
  expect_console("");
}

TEST_F(server_output, connection_with_pending_output_is_announced_again_and_not_asked) {
  link& a = join();
  a.conn->answers = {gives("hello")};
  turn();
  for (int i = 0; i < 2; i++) {
    faults::of()["send"] = {0, 1, EAGAIN};
    EXPECT_THAT(notes_of_a_turn(), ElementsAre("c1 send 5 from 0 -> -1"));
    EXPECT_TRUE(is_ready(a));
  }
}

TEST_F(server_output, pending_output_keeps_its_place) {
  link& a = join();
  a.conn->out_len = 3;
  a.conn->out_pos = 2;
  turn();
  EXPECT_EQ(a.conn->out_len, 3);
  EXPECT_EQ(a.conn->out_pos, 2);
  EXPECT_TRUE(is_ready(a));
}

TEST_F(server_output, bytes_from_outside_go_out_through_a_connection_that_was_never_accepted) {
  link& a = make_outside();
  append(a);
  a.conn->answers = {gives("hello", false)};
  turn();
  turn();
  a.expect_received("hello");
  EXPECT_EQ(srv.connections.count, 0);
}

TEST_F(server_output, whole_buffer_can_be_filled) {
  link& a = join();
  a.conn->answers = {[](char* buf, int cap, int* len) {
    memset(buf, 'x', static_cast<size_t>(cap));
    *len = cap;
    return true;
  }};
  turn();
  EXPECT_EQ(a.conn->out_len, 1048576);
  EXPECT_EQ(a.conn->timeout, 10);
}

class server_report : public server_fixture {
 protected:
  // A turn `seconds` after the one before.
  void turn_after(int seconds) {
    faults::clock_offset() += seconds;
    turn();
  }

  link& join_for_ever() {
    link& a = join();
    a.conn->timeout = -1;
    return a;
  }
};

TEST_F(server_report, first_turn_of_a_server_prints_0_connections) {
  recording_server fresh(0, notes);
  fresh.update();
  expect_console("0 connections\n");
  EXPECT_EQ(fresh.last_count, 0);
  EXPECT_EQ(fresh.last_report, start_time);
}

TEST_F(server_report, first_turn_prints_the_count_after_2038_too) {
  faults::frozen_clock() = int64_t{INT32_MAX} + 1000;
  recording_server fresh(0, notes);
  fresh.update();
  expect_console("0 connections\n");
  EXPECT_EQ(fresh.last_report, int64_t{INT32_MAX} + 1000);
}

TEST_F(server_report, count_is_printed_when_more_than_5_seconds_have_passed) {
  join_for_ever();
  join_for_ever();
  turn_after(5);
  expect_console("");
  EXPECT_EQ(srv.last_report, start_time);
  turn_after(1);
  expect_console("2 connections\n");
  EXPECT_EQ(srv.last_report, start_time + 6);
  EXPECT_EQ(srv.last_count, 2);
}

TEST_F(server_report, count_is_printed_again_every_6_seconds_even_if_it_is_the_same) {
  join_for_ever();
  for (int i = 0; i < 3; i++) {
    turn_after(6);
    expect_console("1 connections\n");
    turn_after(0);
    expect_console("");
  }
}

TEST_F(server_report, count_is_printed_once_more_when_the_last_has_gone) {
  link& a = join_for_ever();
  turn_after(6);
  expect_console("1 connections\n");
  a.conn->answers = {gives_up()};
  turn_after(6);
  expect_console("0 connections\n");
  for (int i = 0; i < 3; i++) {
    turn_after(6);
    expect_console("");
  }
  join_for_ever();
  turn_after(6);
  expect_console("1 connections\n");
}

TEST_F(server_report, count_that_is_not_printed_counts_as_reported) {
  turn_after(6);
  expect_console("");
  EXPECT_EQ(srv.last_report, start_time + 6);
  EXPECT_EQ(srv.last_count, 0);
  join_for_ever();
  turn_after(5);
  expect_console("");
}

TEST_F(server_report, count_includes_connections_from_outside_and_those_of_this_turn) {
  append(make_outside());
  links.back().conn->timeout = -1;
  client waiting = connect_client();
  turn_after(6);
  expect_console("2 connections\n");
}

TEST_F(server_report, connection_that_comes_and_goes_between_two_reports_is_not_seen) {
  join_for_ever().conn->answers = {gives_up()};
  turn_after(6);
  expect_console("");
}

}  // namespace
