// The two main loops. Their stop flags stay set. Therefore each test runs them in a process of its own.

#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <functional>
#include <vector>

#include "tests/net/child.h"
#include "tests/net/server_fixture.h"

namespace {

// Prints what the loop calls, each call with its name.
struct printing_server : abstract_server {
  std::string name;
  std::function<bool()> starts = [] { return true; };
  std::function<void()> updates = [] {};
  std::function<void()> idles = [] {};

  explicit printing_server(const std::string& its_name) : name(its_name) {}

  bool start() override {
    printf("%s start\n", name.c_str());
    return starts();
  }
  void update() override {
    printf("%s update\n", name.c_str());
    updates();
  }
  void on_idle() override {
    printf("%s idle\n", name.c_str());
    idles();
  }
  connection* create_connection(int) override { return nullptr; }
  bool on_accept(connection*) override { return false; }
  void on_remove(connection*) override {}
  int recv(connection*, char*, int) override { return -1; }
  int send(connection*, char*, int) override { return -1; }
};

void interrupt() {
  raise(SIGINT);
}

bool interrupt_and_start() {
  interrupt();
  return true;
}

// The handler of each signal, by its number.
std::vector<sighandler_t> handlers() {
  std::vector<sighandler_t> all;
  for (int number = 0; number < NSIG; number++) {
    struct sigaction action = {};
    sigaction(number, nullptr, &action);
    all.push_back(action.sa_handler);
  }
  return all;
}

// From now on SIGINT arrives while the loop waits. It is held back until the loop has installed a handler.
void interrupt_during_the_wait() {
  interrupt_regularly([](int) {
    struct sigaction action = {};
    sigaction(SIGINT, nullptr, &action);
    if (action.sa_handler != SIG_DFL) raise(SIGINT);
  });
}

class run_test : public testing::Test {
 protected:
  run_test() { faults::clear(); }
  ~run_test() override { faults::clear(); }

  // Runs `body` in a child and compares what it printed.
  void expect_prints(const std::function<void()>& body, const std::string& text) {
    EXPECT_TRUE(run_in_child([&] {
      signal(SIGINT, SIG_DFL);
      body();
    }));
    EXPECT_EQ(screen.text(), text);
  }

  // The array of the servers a and b.
  abstract_server** both() {
    servers = {&a, &b, nullptr};
    return servers.data();
  }

  // Both loops, each over the server a alone.
  std::vector<std::function<void()>> loops_over_a() {
    servers = {&a, nullptr};
    return {[this] { a.run(); }, [this] { abstract_server::run(servers.data()); }};
  }

  // Makes every wait end at once, with something ready.
  void make_a_socket_readable() {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    ASSERT_EQ(write(ends[1], "x", 1), 1);
    sockets::add(ends[0]);
  }

  console screen;
  printing_server a{"a"};
  printing_server b{"b"};
  std::vector<abstract_server*> servers;
};

TEST_F(run_test, one_server__is_updated_every_turn_and_never_idle) {
  int turns = 0;
  a.updates = [&] {
    EXPECT_EQ(sockets::num_ready(), 0);
    EXPECT_EQ(faults::calls()["select"], ++turns);
    if (turns == 3) interrupt();
  };
  expect_prints([&] { a.run(); }, "a start\na update\na update\na update\nShutting down...\n");
}

TEST_F(run_test, one_server__that_cannot_start_ends_the_run_silently) {
  a.starts = [] { return false; };
  expect_prints([&] { a.run(); }, "a start\n");
}

TEST_F(run_test, one_server__handler_is_installed_before_the_start_and_the_flag_tested_before_the_turn) {
  a.starts = interrupt_and_start;
  expect_prints(
      [&] {
        a.run();
        EXPECT_EQ(faults::calls()["select"], 0);
      },
      "a start\nShutting down...\n");
}

TEST_F(run_test, one_server__interrupt_during_the_wait_ends_the_run_without_an_error_message) {
  expect_prints(
      [&] {
        server<recording_connection> s(0);
        interrupt_during_the_wait();
        silence_reports(s);
        s.run();
        EXPECT_EQ(sockets::num_ready(), -1);
      },
      "Shutting down...\n");
}

// Whenever the signal comes in the second turn, each wait is followed by its update.
TEST_F(run_test, one_server__interrupted_turn_is_completed) {
  static volatile sig_atomic_t is_second;
  is_second = false;
  int turns = 0;
  a.updates = [&] {
    turns++;
    is_second = true;
  };
  EXPECT_TRUE(run_in_child([&] {
    interrupt_regularly([](int) {
      if (is_second) raise(SIGINT);
    });
    a.run();
    EXPECT_EQ(turns, faults::calls()["select"]);
  }));
}

TEST_F(run_test, one_server__port_0_serves_nothing_until_the_interrupt) {
  struct : server<recording_connection> {
    using server::server;
    void update() override {
      server::update();
      interrupt();
    }
  } holder(0);
  expect_prints([&] { holder.run(); }, "0 connections\nShutting down...\n");
}

TEST_F(run_test, one_server__stays_open_for_its_owner_to_stop) {
  journal notes;
  recording_server s(free_port(), notes);
  expect_prints(
      [&] {
        s.when_started = interrupt;
        s.run();
        EXPECT_GE(s.sock, 0);
        screen.clear();
      },
      "");
}

TEST_F(run_test, several_servers__are_started_updated_and_idled_in_their_order) {
  int turns = 0;
  b.idles = [&] {
    if (++turns == 2) interrupt();
  };
  expect_prints([&] { abstract_server::run(both()); },
                "a start\nb start\n"
                "a update\nb update\na idle\nb idle\n"
                "a update\nb update\na idle\nb idle\n"
                "Shutting down...\n");
}

TEST_F(run_test, several_servers__wait_once_a_turn) {
  int turns = 0;
  b.updates = [&] {
    EXPECT_EQ(faults::calls()["select"], ++turns);
    if (turns == 3) interrupt();
  };
  EXPECT_TRUE(run_in_child([&] { abstract_server::run(both()); }));
}

TEST_F(run_test, several_servers__interrupted_turn_is_completed) {
  a.updates = interrupt;
  expect_prints([&] { abstract_server::run(both()); },
                "a start\nb start\na update\nb update\na idle\nb idle\nShutting down...\n");
}

TEST_F(run_test, several_servers__are_not_idle_when_a_socket_is_ready) {
  b.updates = interrupt;
  expect_prints(
      [&] {
        make_a_socket_readable();
        abstract_server::run(both());
      },
      "a start\nb start\na update\nb update\nShutting down...\n");
}

TEST_F(run_test, several_servers__are_not_idle_after_a_failed_wait) {
  faults::of()["select"] = {0, 1, EINTR};
  b.updates = interrupt;
  expect_prints([&] { abstract_server::run(both()); },
                "a start\nb start\na update\nb update\nShutting down...\n");
}

TEST_F(run_test, several_servers__are_idle_when_an_update_says_that_nothing_was_ready) {
  a.updates = [] { sockets::num_ready() = 0; };
  b.updates = interrupt;
  expect_prints(
      [&] {
        make_a_socket_readable();
        abstract_server::run(both());
      },
      "a start\nb start\na update\nb update\na idle\nb idle\nShutting down...\n");
}

TEST_F(run_test, several_servers__one_that_cannot_start_ends_the_run_before_the_next_is_started) {
  a.starts = [] { return false; };
  expect_prints([&] { abstract_server::run(both()); }, "a start\nFailed to start server(s).\n");
}

TEST_F(run_test, several_servers__those_started_before_a_failure_stay_open) {
  journal notes;
  recording_server open(free_port(), notes);
  b.starts = [] { return false; };
  expect_prints(
      [&] {
        servers = {&open, &b, nullptr};
        abstract_server::run(servers.data());
        EXPECT_TRUE(client(open.port).ok());
      },
      "Binding to port " + std::to_string(open.port) +
          " on localhost only\nb start\nFailed to start server(s).\n");
}

TEST_F(run_test, several_servers__handler_is_installed_before_any_start) {
  a.starts = interrupt_and_start;
  expect_prints(
      [&] {
        abstract_server::run(both());
        EXPECT_EQ(faults::calls()["select"], 0);
      },
      "a start\nb start\nShutting down...\n");
}

TEST_F(run_test, several_servers__empty_array_waits_for_the_interrupt) {
  expect_prints(
      [&] {
        abstract_server* none = nullptr;
        interrupt_during_the_wait();
        abstract_server::run(&none);
        EXPECT_EQ(sockets::num_ready(), -1);
      },
      "Shutting down...\n");
}

TEST_F(run_test, failed_wait_restarts_both_servers_and_the_loop_goes_on) {
  journal notes;
  recording_server first(0, notes);
  recording_server second(0, notes);
  faults::of()["select"] = {0, 1, EBADF};
  for (auto* s : {&first, &second}) silence_reports(*s);
  expect_prints(
      [&] {
        first.connections.push(first.make_connection());
        second.connections.push(second.make_connection());
        servers = {&first, &second, &b, nullptr};
        b.idles = interrupt;
        abstract_server::run(servers.data());
        EXPECT_EQ(first.connections.count + second.connections.count, 0);
        EXPECT_EQ(std::count(notes.begin(), notes.end(), "start"), 4);
      },
      "b start\nselect() failed! 9\nb update\nb update\nb idle\nShutting down...\n");
}

TEST_F(run_test, stop_flag_stays_set) {
  a.updates = interrupt;
  expect_prints(
      [&] {
        a.run();
        a.run();
      },
      "a start\na update\nShutting down...\na start\nShutting down...\n");
}

TEST_F(run_test, stop_flag_of_several_servers_stays_set) {
  servers = {&a, nullptr};
  a.idles = interrupt;
  expect_prints(
      [&] {
        abstract_server::run(servers.data());
        abstract_server::run(servers.data());
      },
      "a start\na update\na idle\nShutting down...\na start\nShutting down...\n");
}

TEST_F(run_test, interrupt_may_come_again_and_after_the_end) {
  a.updates = [] {
    interrupt();
    interrupt();
  };
  for (const auto& loop : loops_over_a()) {
    EXPECT_TRUE(run_in_child([&] {
      make_a_socket_readable();
      loop();
      interrupt();
    }));
  }
}

TEST_F(run_test, sigint_is_the_only_signal_that_is_handled) {
  a.updates = interrupt;
  for (const auto& loop : loops_over_a()) {
    EXPECT_TRUE(run_in_child([&] {
      const std::vector<sighandler_t> before = handlers();
      loop();
      const std::vector<sighandler_t> after = handlers();
      for (size_t number = 0; number < NSIG; number++)
        EXPECT_EQ(before[number] != after[number], number == SIGINT) << number;
    }));
  }
}

TEST_F(run_test, messages_are_not_flushed) {
  a.updates = interrupt;
  for (bool can_start : {true, false}) {
    a.starts = [=] { return can_start; };
    for (const auto& loop : loops_over_a()) {
      screen.clear();
      EXPECT_TRUE(prints_without_flush(loop));
      EXPECT_NE(screen.text(), "");
    }
  }
}

TEST_F(run_test, each_loop_has_a_stop_flag_of_its_own) {
  a.updates = interrupt;
  b.updates = interrupt;
  servers = {&b, nullptr};
  expect_prints(
      [&] {
        make_a_socket_readable();
        a.run();
        abstract_server::run(servers.data());
      },
      "a start\na update\nShutting down...\nb start\nb update\nShutting down...\n");
  screen.clear();
  expect_prints(
      [&] {
        make_a_socket_readable();
        abstract_server::run(servers.data());
        a.run();
      },
      "b start\nb update\nShutting down...\na start\na update\nShutting down...\n");
}

}  // namespace
