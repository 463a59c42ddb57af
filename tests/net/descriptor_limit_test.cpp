// Descriptors that no fd_set can hold. Each test runs in its own process, in which all lower descriptors are
// taken.

#include <sys/resource.h>

#include <algorithm>

#include "tests/net/child.h"
#include "tests/net/server_fixture.h"

namespace {

class descriptor_limit : public server_fixture {
 protected:
  void SetUp() override {
    server_fixture::SetUp();
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_max < 1200) GTEST_SKIP() << "no descriptor above FD_SETSIZE is allowed here";
  }

  // Runs `body` in a child in which new descriptors are FD_SETSIZE and above.
  bool run_with_high_descriptors(const std::function<void()>& body) {
    return run_in_child([&] {
      rlimit limit;
      getrlimit(RLIMIT_NOFILE, &limit);
      limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 4096);
      setrlimit(RLIMIT_NOFILE, &limit);
      int last = 0;
      while (last >= 0 && last < FD_SETSIZE - 1) last = dup(STDOUT_FILENO);
      body();
    });
  }

  static int high_copy(int sock) { return fcntl(sock, F_DUPFD, FD_SETSIZE); }
};

TEST_F(descriptor_limit, client_is_turned_away_quietly_and_the_others_stay) {
  link& a = join();
  client waiting = connect_client();
  EXPECT_TRUE(run_with_high_descriptors([&] {
    a.conn->answers = {gives("still here")};
    notes.clear();
    turn();
    EXPECT_THAT(notes, testing::ElementsAre("c1 asked"));
    EXPECT_EQ(srv.connections.count, 1);
    EXPECT_FALSE(is_open(FD_SETSIZE));
    turn();
    a.expect_received("still here");
  }));
  expect_console("");
}

TEST_F(descriptor_limit, outgoing_connection_above_the_limit_counts_as_no_address) {
  EXPECT_TRUE(run_with_high_descriptors([&] {
    for (bool blocking : {false, true}) {
      faults::resolved() = {"127.0.0.1"};  // the resolver itself could need a descriptor
      EXPECT_EQ(sockets::connect("high.example", srv.port, blocking), -1);
      EXPECT_THAT(
          screen.text(),
          testing::EndsWith("No addresses worked for host high.example:" + std::to_string(srv.port) + ".\n"));
      EXPECT_FALSE(is_open(FD_SETSIZE));
    }
  }));
}

TEST_F(descriptor_limit, listening_socket_above_the_limit_counts_as_no_socket) {
  EXPECT_TRUE(run_with_high_descriptors([&] {
    recording_server other(srv.port, notes);
    EXPECT_FALSE(other.start());
    EXPECT_EQ(other.sock, -1);
    EXPECT_FALSE(is_open(FD_SETSIZE));
    EXPECT_THAT(screen.text(), testing::EndsWith("socket() failed\n"));
  }));
}

TEST_F(descriptor_limit, connection_above_the_limit_touches_no_set_and_is_timed_out) {
  EXPECT_TRUE(run_with_high_descriptors([&] {
    auto* conn = srv.make_connection();
    conn->sock = high_copy(STDOUT_FILENO);
    fd_set before = *sockets::all();
    srv.add_connection(conn);
    EXPECT_EQ(memcmp(&before, sockets::all(), sizeof(before)), 0);
    conn->answers = {gives("never sent")};
    notes.clear();
    turn();
    turn();
    EXPECT_THAT(notes, testing::ElementsAre("c1 asked"));
    int sock = conn->sock;
    conn->last_active -= 11;
    turn();
    EXPECT_EQ(srv.connections.count, 0);
    EXPECT_FALSE(is_open(sock));
    expect_console(time_out_line(sock));
  }));
}

}  // namespace
