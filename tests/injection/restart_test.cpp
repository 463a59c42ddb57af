// A server that has to start again and cannot do so.

#include <netdb.h>

#include <cerrno>
#include <cstring>

#include "tests/injection/fault_run.h"

namespace {

const failure restart_failures[] = {
    {"getaddrinfo", EIO, harm::everybody, EAI_MEMORY, "EAI_MEMORY"},
    {"socket", EMFILE, harm::everybody, -1, "EMFILE"},
    {"bind", EADDRINUSE, harm::everybody, -1, "EADDRINUSE"},
    {"listen", EADDRINUSE, harm::everybody, -1, "EADDRINUSE"},
};

struct restart_that_fails : testing::TestWithParam<failure> {
  descriptor_check descriptors;
  console screen;
  plain_stage here;

  void SetUp() override { ASSERT_TRUE(here.start()); }

  /* Expects that the server has closed everything, and does nothing until it is started again. */
  void expect_silence() {
    const fd_set none = {};
    EXPECT_EQ(here.front().sock, -1);
    EXPECT_EQ(here.connections(), 0);
    EXPECT_EQ(memcmp(sockets::all(), &none, sizeof(none)), 0);
    screen.clear();
    faults::clock_offset() += 100;
    for (int i = 0; i < 3; i++) here.turn();
    EXPECT_EQ(screen.text().find("failed"), std::string::npos) << screen.text();
    EXPECT_FALSE(client(here.port()).ok());
  }

  void expect_service() {
    ASSERT_TRUE(here.start());
    conversation afterwards(here);
    afterwards.play();
    EXPECT_EQ(afterwards.harmed(), "");
    here.stop();
  }

  void fail_once(const failure& f) { faults::of()[f.call] = {0, 1, f.error, f.result}; }
};

}  // namespace

TEST_P(restart_that_fails, after_a_failed_wait_leaves_nothing_open_and_a_later_start_serves) {
  client c(here.port());
  here.turn();
  EXPECT_EQ(here.connections(), 1);
  fail_once({"select", EBADF, harm::everybody});
  fail_once(GetParam());
  here.turn();
  expect_silence();
  c.poll();
  EXPECT_TRUE(c.is_closed());
  expect_service();
}

TEST_P(restart_that_fails, after_a_failed_accept_leaves_nothing_open_and_a_later_start_serves) {
  client accepted(here.port());
  here.turn();
  client waiting(here.port());
  fail_once({"accept4", EMFILE, harm::everybody});
  fail_once(GetParam());
  here.turn();
  expect_silence();
  accepted.poll();
  waiting.poll();
  EXPECT_TRUE(accepted.is_closed());
  EXPECT_TRUE(waiting.is_closed());
  expect_service();
}

INSTANTIATE_TEST_SUITE_P(, restart_that_fails, testing::ValuesIn(restart_failures), test_name);
