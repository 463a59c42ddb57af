// A server's first state, its start, its stop, and its restart after a failed wait.

#include <unistd.h>

#include <cerrno>
#include <memory>
#include <type_traits>

#include "tests/net/child.h"
#include "tests/net/server_fixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using plain_server = server<recording_connection>;

class server_start : public server_fixture {
 protected:
  std::string binding_line() const {
    return "Binding to port " + std::to_string(srv.port) + " on localhost only\n";
  }

  void turn_after_failed_wait(int error) {
    sockets::num_ready() = -1;
    errno = error;
    srv.update();
  }
};

TEST(server, first_state) {
  plain_server s(8080);
  EXPECT_EQ(s.sock, -1);
  EXPECT_EQ(s.connections.count, 0);
  EXPECT_EQ(s.port, 8080);
  EXPECT_FALSE(s.localhost_only);
  EXPECT_EQ(s.last_report, 0);
  EXPECT_EQ(s.last_count, -1);
  EXPECT_TRUE(plain_server(8080, true).localhost_only);
}

TEST(server, fields_stand_in_the_order_of_the_design) {
  plain_server s(8080);
  const std::vector<const void*> order = {&s.sock,           &s.connections, &s.port,
                                          &s.localhost_only, &s.last_report, &s.last_count};
  EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
  EXPECT_TRUE((std::is_same_v<decltype(s.last_report), int64_t>));
}

TEST(server, plain_hooks_make_an_object_of_the_class_and_refuse_nobody) {
  plain_server s(0);
  std::unique_ptr<connection> c(s.create_connection(0x0100007f));
  EXPECT_NE(dynamic_cast<recording_connection*>(c.get()), nullptr);
  EXPECT_EQ(c->ip, 0u);
  EXPECT_TRUE(s.on_accept(c.get()));
  s.on_remove(c.get());
  s.on_idle();
}

TEST(server, port_0_starts_without_listening) {
  console screen;
  plain_server s(0);
  EXPECT_TRUE(s.start());
  EXPECT_TRUE(s.start());
  EXPECT_EQ(s.sock, -1);
  EXPECT_EQ(screen.text(), "");
}

TEST(server, negative_port_is_not_port_0) {
  console screen;
  plain_server s(-1, true);
  EXPECT_FALSE(s.start());
  EXPECT_EQ(s.sock, -1);
  EXPECT_THAT(screen.text(), testing::StartsWith("Binding to port -1 on localhost only\n"));
}

TEST(server, plain_transport_is_one_call_of_the_system_outside_of_a_turn) {
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends), 0);
  plain_server s(0);
  std::unique_ptr<connection> c(s.create_connection(0));
  c->sock = ends[0];
  char buf[4] = "";
  ASSERT_EQ(write(ends[1], "abc", 3), 3);
  EXPECT_EQ(s.recv(c.get(), buf, 2), 2);
  EXPECT_EQ(s.recv(c.get(), buf + 2, 2), 1);
  EXPECT_STREQ(buf, "abc");
  EXPECT_EQ(s.recv(c.get(), buf, 2), -1);
  EXPECT_EQ(s.send(c.get(), buf, 3), 3);
  EXPECT_EQ(read(ends[1], buf, 4), 3);
  close(ends[1]);
  EXPECT_EQ(s.recv(c.get(), buf, 2), 0);
  EXPECT_EQ(s.send(c.get(), buf, 3), -1);
  close(ends[0]);
}

TEST_F(server_start, descriptor_0_is_one_like_any_other) {
  const int port = free_port();
  EXPECT_TRUE(run_in_child([&] {
    close(0);
    plain_server s(port, true);
    EXPECT_TRUE(s.start());
    EXPECT_EQ(s.sock, 0);
    EXPECT_TRUE(FD_ISSET(0, sockets::all()));
    EXPECT_FALSE(s.start());
    s.stop();
    EXPECT_FALSE(is_open(0));
    EXPECT_FALSE(FD_ISSET(0, sockets::all()));
  }));
}

TEST_F(server_start, start_listens_and_registers_the_socket) {
  plain_server s(free_port(), true);
  EXPECT_TRUE(s.start());
  EXPECT_GE(s.sock, 0);
  EXPECT_TRUE(FD_ISSET(s.sock, sockets::all()));
  EXPECT_TRUE(client(s.port).ok());
  expect_console("Binding to port " + std::to_string(s.port) + " on localhost only\n");
}

TEST_F(server_start, start_listens_on_all_adapters_unless_told_otherwise) {
  faults::adapters() = {"192.0.2.1"};
  plain_server s(free_port());
  EXPECT_TRUE(s.start());
  expect_console("Binding to port " + std::to_string(s.port) + " on all adapters:\n192.0.2.1\n");
}

TEST_F(server_start, second_start_fails_and_leaves_the_first_alone) {
  int sock = srv.sock;
  EXPECT_FALSE(srv.start());
  expect_console("server already started\n");
  EXPECT_EQ(srv.sock, sock);
  EXPECT_TRUE(client(srv.port).ok());
}

TEST_F(server_start, failed_start_registers_nothing) {
  listener other;
  fd_set before = *sockets::all();
  plain_server s(other.port(), true);
  EXPECT_FALSE(s.start());
  EXPECT_EQ(s.sock, -1);
  EXPECT_EQ(memcmp(&before, sockets::all(), sizeof(before)), 0);
}

TEST_F(server_start, stop_closes_the_listening_socket) {
  int sock = srv.sock;
  srv.stop();
  EXPECT_EQ(srv.sock, -1);
  EXPECT_FALSE(is_open(sock));
  EXPECT_FALSE(FD_ISSET(sock, sockets::all()));
  EXPECT_FALSE(client(srv.port).ok());
  expect_console("");
}

TEST_F(server_start, stop_twice_does_no_harm) {
  srv.stop();
  srv.stop();
  EXPECT_EQ(srv.sock, -1);
  EXPECT_TRUE(srv.start());
}

TEST_F(server_start, stop_ends_the_connections_in_order_of_arrival) {
  join();
  append(make_outside());
  join();
  notes.clear();
  srv.stop();
  EXPECT_EQ(srv.connections.count, 0);
  EXPECT_THAT(notes, ElementsAre("c1 on_remove, closed and unregistered", "c1 deleted",
                                 "c2 on_remove, closed and unregistered", "c2 deleted",
                                 "c3 on_remove, closed and unregistered", "c3 deleted"));
  for (link& l : links) l.expect_closed();
}

TEST_F(server_start, stop_closes_the_listening_socket_before_the_connections) {
  join();
  std::vector<int> listening;
  srv.when_called = [&](connection*) { listening.push_back(srv.sock); };
  srv.stop();
  EXPECT_THAT(listening, ElementsAre(-1));
}

TEST_F(server_start, stop_looks_at_the_port_to_tell_whether_it_listens) {
  int sock = srv.sock;
  int port = srv.port;
  join();
  srv.port = 0;
  srv.stop();
  EXPECT_EQ(srv.sock, sock);
  EXPECT_TRUE(is_open(sock));
  EXPECT_TRUE(FD_ISSET(sock, sockets::all()));
  EXPECT_EQ(srv.connections.count, 0);
  srv.port = port;
}

TEST_F(server_start, destructor_stops_the_server_without_hooks_of_the_derived_class) {
  auto s = std::make_unique<recording_server>(free_port(), notes);
  s->start();
  int sock = s->sock;
  links.push_back({client(s->port), nullptr});
  ASSERT_TRUE(wait_for(sock, POLLIN));
  s->accept_connection();
  notes.clear();
  s.reset();
  EXPECT_FALSE(is_open(sock));
  EXPECT_FALSE(FD_ISSET(sock, sockets::all()));
  EXPECT_THAT(notes, ElementsAre("c1 deleted"));
  links.back().expect_closed();
}

TEST_F(server_start, interrupted_wait_skips_the_turn) {
  link& a = join();
  idle(a, 1000);
  client waiting = connect_client();
  notes.clear();
  srv.last_report = 0;
  for (auto set : {sockets::readable, sockets::errors}) *set() = *sockets::all();
  turn_after_failed_wait(EINTR);
  EXPECT_THAT(notes, IsEmpty());
  EXPECT_EQ(srv.connections.count, 1);
  EXPECT_EQ(srv.last_report, 0);
  expect_console("");
}

TEST_F(server_start, failed_wait_drops_all_connections_and_listens_again) {
  link& a = join();
  link& b = join();
  notes.clear();
  srv.last_report = 0;
  faults::of()["select"] = {0, 1, EBADF};
  turn();
  EXPECT_THAT(notes, ElementsAre("c1 on_remove, closed and unregistered", "c1 deleted",
                                 "c2 on_remove, closed and unregistered", "c2 deleted", "start"));
  expect_console("select() failed! 9\n" + binding_line());
  a.expect_closed();
  b.expect_closed();
  EXPECT_EQ(srv.last_report, 0) << "the turn ends there";
  join();
}

TEST_F(server_start, failed_wait_restarts_the_server_for_every_error_except_eintr) {
  for (int error : {EBADF, EINVAL, ENOMEM, EAGAIN, 0}) {
    notes.clear();
    turn_after_failed_wait(error);
    EXPECT_THAT(notes, ElementsAre("start"));
  }
}

TEST_F(server_start, failed_wait_restarts_every_server_even_if_a_restart_changes_errno) {
  plain_server second(free_port(), true);
  second.start();
  int socks[] = {srv.sock, second.sock};
  client waiting(second.port);
  ASSERT_TRUE(wait_for(second.sock, POLLIN));
  second.accept_connection();
  srv.when_started = [] { errno = EINTR; };
  turn_after_failed_wait(EBADF);
  second.update();
  EXPECT_EQ(second.connections.count, 0);
  EXPECT_EQ(errno, EBADF);
  for (int sock : {srv.sock, second.sock}) EXPECT_TRUE(sock == socks[0] || sock == socks[1]);
}

TEST_F(server_start, failed_wait_leaves_port_0_without_a_listening_socket) {
  recording_server holder(0, notes);
  holder.connections.push(make_outside().conn);
  notes.clear();
  sockets::num_ready() = -1;
  errno = EBADF;
  holder.update();
  EXPECT_EQ(holder.sock, -1);
  EXPECT_THAT(notes, ElementsAre("c1 on_remove, closed and unregistered", "c1 deleted", "start"));
}

TEST_F(server_start, server_that_could_not_listen_again_goes_on_without_listening) {
  srv.when_started = [] { faults::of().clear(); };
  faults::of()["socket"] = {0, 1, EMFILE};
  turn_after_failed_wait(EBADF);
  EXPECT_EQ(srv.sock, -1);
  expect_console(binding_line() + "socket() failed\n");
  append(make_outside());
  turn();
  EXPECT_EQ(srv.connections.count, 1);
  expect_console("");
}

TEST_F(server_start, server_on_port_0_services_what_is_put_into_its_list) {
  recording_server holder(0, notes);
  EXPECT_TRUE(holder.start());
  link& a = make_outside();
  holder.connections.push(a.conn);
  sockets::add(a.conn->sock);
  a.conn->answers = {gives("out")};
  a.deliver("in");
  notes.clear();
  for (int i = 0; i < 2; i++) take_turn(holder);
  EXPECT_THAT(notes, ElementsAre("c1 recv 1048576 -> 2", "c1 received in", "c1 asked",
                                 "c1 send 3 from 0 -> 3", "c1 send 0 from 3 -> 0", "c1 asked"));
  a.expect_received("out");
}

TEST_F(server_start, messages_are_not_flushed) {
  link& a = join();
  link& b = join();
  idle(a, 11);
  b.deliver_urgent_byte();
  client waiting = connect_client();
  EXPECT_TRUE(prints_without_flush([&] {
    srv.last_report = 0;
    turn();
    turn();
    srv.start();
    faults::of()["accept4"] = {0, 1, EMFILE};
    srv.accept_connection();
  }));
  expect_console(line(a, "has timed out") + "2 connections\n" + line(b, "has errors") +
                 "server already started\naccept() failed\n");
}

}  // namespace
