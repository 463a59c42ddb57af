// The loop over several servers. SIGINT and the stop flag belong to the process. Therefore each loop runs in
// a copy of the process.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <functional>
#include <string>
#include <vector>

#include "net/server.h"
#include "net/sockets.h"
#include "proxy/reverse_proxy.h"
#include "tests/net/child.h"
#include "tests/support/console.h"
#include "tests/support/faults.h"

namespace {

using journal = std::vector<std::string>;

/* A server without sockets. It notes its calls and does in them what a test says. */
struct noting_server : abstract_server {
  std::string name;
  journal* notes;  // borrowed
  bool can_start = true;
  std::function<void()> when_started = [] {};
  std::function<void()> when_updated = [] {};

  noting_server(const std::string& its_name, journal& its_notes) : name(its_name), notes(&its_notes) {}

  bool start() override {
    note("start");
    when_started();
    return can_start;
  }
  void update() override {
    note("update");
    when_updated();
  }
  void on_idle() override { note("on_idle"); }

  connection* create_connection(int) override { return nullptr; }
  bool on_accept(connection*) override { return false; }
  void on_remove(connection*) override {}
  int recv(connection*, char*, int) override { return -1; }
  int send(connection*, char*, int) override { return -1; }

  void note(const std::string& what) { notes->push_back(name + " " + what); }
};

struct multi_server_run : testing::Test {
  ~multi_server_run() override { faults::clear(); }

  /* Runs `body` in a copy of the process. Expects that it ends without a failure. */
  void in_child(const std::function<void()>& body) { EXPECT_TRUE(run_in_child(body)); }

  void run_both() {
    abstract_server* servers[] = {&first, &second, nullptr};
    abstract_server::run(servers);
  }

  static void interrupt() { raise(SIGINT); }

  /* Every wait returns this at once. */
  static void make_select_return(int result, int error = 0) {
    faults::of()["select"] = {0, 1000000, error, result};
  }

  journal notes;
  noting_server first{"first", notes}, second{"second", notes};
  console screen;
};

}  // namespace

TEST_F(multi_server_run, servers_are_started_updated_and_idled_in_the_order_of_the_array) {
  make_select_return(0);
  int turns = 0;
  first.when_updated = [&] {
    if (++turns == 2) interrupt();
  };
  in_child([this] {
    run_both();
    const journal turn = {"first update", "second update", "first on_idle", "second on_idle"};
    journal wanted = {"first start", "second start"};
    for (int i = 0; i < 2; i++) wanted.insert(wanted.end(), turn.begin(), turn.end());
    EXPECT_EQ(notes, wanted);
  });
  EXPECT_EQ(screen.text(), "Shutting down...\n");
}

TEST_F(multi_server_run, turn_in_progress_is_finished_after_sigint) {
  make_select_return(0);
  first.when_updated = interrupt;
  in_child([this] {
    run_both();
    EXPECT_EQ(notes, (journal{"first start", "second start", "first update", "second update", "first on_idle",
                              "second on_idle"}));
  });
  EXPECT_EQ(screen.text(), "Shutting down...\n");
}

TEST_F(multi_server_run, turn_with_a_ready_socket_is_not_idle) {
  for (int ready : {1, 2, 1000}) {
    notes.clear();
    make_select_return(ready);
    second.when_updated = interrupt;
    in_child([this] {
      run_both();
      EXPECT_THAT(notes, testing::Not(testing::Contains(testing::HasSubstr("on_idle"))));
      EXPECT_EQ(notes.size(), 4U);
    });
  }
}

TEST_F(multi_server_run, turn_after_a_failed_wait_is_not_idle) {
  for (int error : {EINTR, EBADF}) {
    notes.clear();
    make_select_return(-1, error);
    second.when_updated = interrupt;
    in_child([this] {
      run_both();
      EXPECT_EQ(notes, (journal{"first start", "second start", "first update", "second update"}));
    });
  }
}

TEST_F(multi_server_run, wait_comes_before_the_updates_of_a_turn) {
  make_select_return(0);
  first.when_updated = [] {
    EXPECT_EQ(faults::calls()["select"], 1);
    interrupt();
  };
  second.when_updated = [] { EXPECT_EQ(faults::calls()["select"], 1); };
  in_child([this] { run_both(); });
}

TEST_F(multi_server_run, server_that_cannot_start_ends_the_run_at_once) {
  first.can_start = false;
  in_child([this] {
    run_both();
    EXPECT_EQ(notes, journal{"first start"});
  });
  EXPECT_EQ(screen.text(), "Failed to start server(s).\n");
}

TEST_F(multi_server_run, servers_started_earlier_are_left_as_they_are) {
  second.can_start = false;
  in_child([this] {
    server<reverse_proxy> listening(free_port(), true);
    abstract_server* servers[] = {&listening, &second, nullptr};
    abstract_server::run(servers);
    EXPECT_NE(listening.sock, -1);
    EXPECT_TRUE(sockets::has(sockets::all(), listening.sock));
  });
  EXPECT_THAT(screen.text(), testing::EndsWith("\nFailed to start server(s).\n"));
}

TEST_F(multi_server_run, sigint_counts_even_before_the_first_start) {
  first.when_started = interrupt;
  in_child([this] {
    run_both();
    EXPECT_EQ(notes, (journal{"first start", "second start"}));
  });
  EXPECT_EQ(screen.text(), "Shutting down...\n");
}

TEST_F(multi_server_run, empty_array_enters_the_loop_at_once) {
  in_child([] {
    interrupt_regularly([](int) { interrupt(); });
    signal(SIGINT, SIG_IGN);  // until the run has its own handler
    abstract_server* none[] = {nullptr};
    abstract_server::run(none);
  });
  EXPECT_EQ(screen.text(), "Shutting down...\n");
}

TEST_F(multi_server_run, stop_flag_is_not_that_of_the_single_server) {
  make_select_return(0);
  first.when_updated = interrupt;
  in_child([this] {
    run_both();
    notes.clear();
    first.run();
    EXPECT_EQ(notes, (journal{"first start", "first update"}));
  });
  EXPECT_EQ(screen.text(), "Shutting down...\nShutting down...\n");
}
