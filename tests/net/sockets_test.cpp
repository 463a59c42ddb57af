// The readiness sets, the single wait of a turn, and the settings of the whole process.

#include "net/sockets.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <set>
#include <vector>

#include "tests/net/child.h"
#include "tests/support/console.h"
#include "tests/support/faults.h"

namespace {

constexpr fd_set* (*accessors[])() = {sockets::all, sockets::ready, sockets::readable, sockets::writable,
                                      sockets::errors};

bool is_empty(fd_set* set) {
  fd_set empty;
  FD_ZERO(&empty);
  return memcmp(set, &empty, sizeof(empty)) == 0;
}

ino_t inode_of(int descriptor) {
  struct stat status = {};
  fstat(descriptor, &status);
  return status.st_ino;
}

// Filled before main(), when no test has used the sets yet.
struct first_look {
  bool all_empty = true;
  int num_ready = sockets::num_ready();
  first_look() {
    for (auto set : accessors) all_empty = all_empty && is_empty(set());
  }
} const at_start;

class sockets_test : public testing::Test {
 protected:
  sockets_test() {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends), 0);
    here = ends[0];
    there = ends[1];
  }

  ~sockets_test() override {
    faults::clear();
    sockets::close(here);
    sockets::close(there);
    for (auto set : accessors) FD_ZERO(set());
    sockets::num_ready() = 0;
  }

  void become_readable() { ASSERT_EQ(write(there, "x", 1), 1); }

  void expect_console(const std::string& text) { EXPECT_EQ(screen.text(), text); }

  console screen;
  int here = -1;   // one end of a connection
  int there = -1;  // and the other
};

TEST_F(sockets_test, sets_are_empty_when_they_are_first_used) {
  EXPECT_TRUE(at_start.all_empty);
}

TEST_F(sockets_test, nothing_is_ready_before_the_first_wait) {
  EXPECT_EQ(at_start.num_ready, 0);
}

TEST_F(sockets_test, each_accessor_has_one_set_of_its_own) {
  std::set<fd_set*> different;
  for (auto set : accessors) {
    different.insert(set());
    EXPECT_EQ(set(), set());
  }
  EXPECT_EQ(different.size(), std::size(accessors));
}

TEST_F(sockets_test, num_ready_can_be_set) {
  sockets::num_ready() = 7;
  EXPECT_EQ(sockets::num_ready(), 7);
}

TEST_F(sockets_test, descriptors_from_0_to_1023_fit_into_the_sets) {
  for (int sock : {0, 1, 1023}) EXPECT_TRUE(sockets::fits(sock)) << sock;
  for (int sock : {-1, 1024, 5000, -1024}) EXPECT_FALSE(sockets::fits(sock)) << sock;
}

TEST_F(sockets_test, descriptors_that_do_not_fit_are_in_no_set_and_change_none) {
  for (int sock : {-1, 1024, 1 << 20}) {
    sockets::add(sock);
    sockets::mark_ready(sock);
    for (auto set : accessors) {
      EXPECT_FALSE(sockets::has(set(), sock));
      EXPECT_TRUE(is_empty(set()));
    }
  }
}

TEST_F(sockets_test, add_registers_and_mark_ready_announces_output) {
  sockets::add(5);
  sockets::add(6);
  sockets::mark_ready(6);
  EXPECT_TRUE(sockets::has(sockets::all(), 5));
  EXPECT_FALSE(sockets::has(sockets::ready(), 5));
  EXPECT_TRUE(sockets::has(sockets::ready(), 6));
}

// select() fails on a closed descriptor. That would disconnect everybody.
TEST_F(sockets_test, socket_that_is_not_registered_cannot_be_marked) {
  sockets::mark_ready(here);
  EXPECT_TRUE(is_empty(sockets::ready()));
  sockets::add(here);
  sockets::close(here);
  sockets::mark_ready(here);
  EXPECT_TRUE(is_empty(sockets::ready()));
}

TEST_F(sockets_test, socket_with_unread_bytes_is_readable_after_one_wait_that_does_not_block) {
  sockets::add(here);
  sockets::mark_unread(here);
  sockets::select_all();
  EXPECT_EQ(faults::last_select().wait_us, 0);
  EXPECT_TRUE(sockets::has(sockets::readable(), here));
  EXPECT_EQ(sockets::num_ready(), 1);
  sockets::select_all();
  EXPECT_EQ(faults::last_select().wait_us, 100000);
  EXPECT_FALSE(sockets::has(sockets::readable(), here));
  EXPECT_EQ(sockets::num_ready(), 0);
}

TEST_F(sockets_test, socket_with_unread_bytes_counts_once) {
  sockets::add(here);
  become_readable();
  sockets::mark_unread(here);
  sockets::select_all();
  EXPECT_EQ(sockets::num_ready(), 1);
}

TEST_F(sockets_test, unread_bytes_are_not_forgotten_by_a_failed_wait) {
  sockets::add(here);
  sockets::mark_unread(here);
  faults::of()["select"] = {0, 1, EINTR};
  sockets::select_all();
  EXPECT_EQ(sockets::num_ready(), -1);
  sockets::select_all();
  EXPECT_TRUE(sockets::has(sockets::readable(), here));
}

TEST_F(sockets_test, direction_that_rests_is_left_out_of_one_wait) {
  sockets::add(here);
  become_readable();
  for (bool rests : {true, false}) {
    sockets::mark_ready(here);
    if (rests) sockets::rest_reading(here);
    sockets::select_all();
    EXPECT_NE(sockets::has(sockets::readable(), here), rests);
    EXPECT_TRUE(sockets::has(sockets::writable(), here));
  }
  for (bool rests : {true, false}) {
    sockets::mark_ready(here);
    if (rests) sockets::rest_writing(here);
    sockets::select_all();
    EXPECT_TRUE(sockets::has(sockets::readable(), here));
    EXPECT_NE(sockets::has(sockets::writable(), here), rests);
  }
  // Not even a later wait that is asked for something else leaves it out again.
  sockets::mark_ready(here);
  sockets::mark_unread(here);
  sockets::select_all();
  EXPECT_TRUE(sockets::has(sockets::writable(), here));
}

TEST_F(sockets_test, direction_rests_for_one_wait_even_if_more_is_asked_of_the_next_wait) {
  sockets::add(here);
  become_readable();
  sockets::rest_reading(here);
  sockets::rest_writing(here);
  sockets::select_all();
  sockets::mark_ready(here);
  sockets::mark_unread(there);
  sockets::select_all();
  EXPECT_TRUE(sockets::has(sockets::readable(), here));
  EXPECT_TRUE(sockets::has(sockets::writable(), here));
}

TEST_F(sockets_test, unread_bytes_are_announced_for_one_wait_even_if_more_is_asked_of_the_next_wait) {
  sockets::add(here);
  sockets::mark_unread(here);
  sockets::select_all();
  sockets::mark_unread(there);
  sockets::select_all();
  EXPECT_FALSE(sockets::has(sockets::readable(), here));
}

TEST_F(sockets_test, nothing_is_asked_of_a_wait_for_a_descriptor_that_fits_into_no_set) {
  sockets::add(here);
  become_readable();
  for (int sock : {-1, FD_SETSIZE}) {
    sockets::mark_unread(sock);
    sockets::rest_reading(sock);
    sockets::rest_writing(sock);
    sockets::mark_passed_over(sock);
    sockets::select_all();
    EXPECT_EQ(faults::last_select().wait_us, 100000) << sock;
    EXPECT_TRUE(sockets::has(sockets::readable(), here)) << sock;
  }
}

TEST_F(sockets_test, socket_that_is_passed_over_has_unread_bytes_only_if_the_last_wait_was_told_so) {
  sockets::add(here);
  sockets::mark_unread(here);
  sockets::select_all();
  sockets::select_all();
  sockets::mark_passed_over(here);
  sockets::select_all();
  EXPECT_FALSE(sockets::has(sockets::readable(), here));
}

// A new socket may get the same number before the end of the turn.
TEST_F(sockets_test, close_forgets_the_unread_bytes_that_the_last_wait_was_told_of) {
  const int number = here;
  sockets::add(here);
  sockets::mark_unread(here);
  sockets::select_all();
  ASSERT_TRUE(sockets::has(sockets::readable(), number));
  sockets::close(here);
  here = eventfd(0, 0);  // with nothing to read
  ASSERT_EQ(here, number);
  sockets::add(here);
  sockets::mark_passed_over(here);
  sockets::select_all();
  EXPECT_FALSE(sockets::has(sockets::readable(), number));
}

// A new socket may get the same number before the next wait.
TEST_F(sockets_test, close_forgets_what_was_asked_for_the_next_wait) {
  const int number = here;
  sockets::add(here);
  sockets::mark_unread(here);
  sockets::close(here);
  sockets::select_all();
  EXPECT_FALSE(sockets::has(sockets::readable(), number));
  EXPECT_EQ(sockets::num_ready(), 0);
  sockets::rest_reading(number);
  sockets::rest_writing(number);
  here = dup(there);
  ASSERT_EQ(here, number);
  sockets::close(here);
  here = dup(there);
  ASSERT_EQ(here, number);
  sockets::close(there);
  sockets::add(here);
  sockets::mark_ready(here);
  sockets::select_all();
  EXPECT_TRUE(sockets::has(sockets::readable(), here)) << "the end of the stream";
  EXPECT_TRUE(sockets::has(sockets::writable(), here));
}

TEST_F(sockets_test, close_takes_the_socket_out_of_every_set_and_leaves_the_others) {
  for (auto set : accessors) {
    FD_SET(here, set());
    FD_SET(there, set());
  }
  sockets::close(here);
  EXPECT_EQ(fcntl(here, F_GETFD), -1);
  EXPECT_NE(fcntl(there, F_GETFD), -1);
  for (auto set : accessors) {
    EXPECT_FALSE(FD_ISSET(here, set()));
    EXPECT_TRUE(FD_ISSET(there, set()));
  }
}

TEST_F(sockets_test, close_of_no_socket_does_nothing) {
  sockets::add(here);
  sockets::close(-1);
  EXPECT_TRUE(sockets::has(sockets::all(), here));
  EXPECT_NE(fcntl(here, F_GETFD), -1);
}

TEST_F(sockets_test, wait_asks_for_1024_descriptors_and_100_milliseconds) {
  sockets::add(here);
  become_readable();
  sockets::select_all();
  EXPECT_EQ(faults::last_select().count, 1024);
  EXPECT_EQ(faults::last_select().wait_us, 100000);
}

TEST_F(sockets_test, wait_with_nothing_registered_ends_with_0) {
  sockets::num_ready() = 5;
  sockets::select_all();
  EXPECT_EQ(sockets::num_ready(), 0);
  expect_console("");
}

TEST_F(sockets_test, registered_sockets_are_waited_for_to_become_readable) {
  sockets::add(here);
  sockets::add(there);
  become_readable();
  sockets::select_all();
  EXPECT_EQ(sockets::num_ready(), 1);
  EXPECT_TRUE(FD_ISSET(here, sockets::readable()));
  EXPECT_FALSE(FD_ISSET(there, sockets::readable()));
}

TEST_F(sockets_test, registered_sockets_stay_registered) {
  sockets::add(here);
  become_readable();
  for (int i = 0; i < 2; i++) {
    sockets::select_all();
    EXPECT_TRUE(FD_ISSET(here, sockets::all()));
    EXPECT_TRUE(FD_ISSET(here, sockets::readable()));
  }
}

TEST_F(sockets_test, only_sockets_with_output_are_waited_for_to_become_writable) {
  sockets::add(here);
  sockets::add(there);
  sockets::mark_ready(here);
  sockets::select_all();
  EXPECT_EQ(sockets::num_ready(), 1);
  EXPECT_TRUE(FD_ISSET(here, sockets::writable()));
  EXPECT_FALSE(FD_ISSET(there, sockets::writable()));
}

TEST_F(sockets_test, announced_output_holds_for_one_wait) {
  sockets::mark_ready(here);
  sockets::select_all();
  EXPECT_TRUE(is_empty(sockets::ready()));
  sockets::select_all();
  EXPECT_EQ(sockets::num_ready(), 0);
  EXPECT_TRUE(is_empty(sockets::writable()));
}

TEST_F(sockets_test, results_of_the_last_wait_are_forgotten) {
  for (auto set : {sockets::readable, sockets::writable, sockets::errors}) FD_SET(here, set());
  sockets::select_all();
  for (auto set : {sockets::readable, sockets::writable, sockets::errors}) EXPECT_TRUE(is_empty(set()));
}

TEST_F(sockets_test, highest_descriptor_of_a_set_is_waited_for) {
  rlimit limit;
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = std::max<rlim_t>(limit.rlim_cur, 1024);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  int highest = dup2(here, 1023);
  ASSERT_EQ(highest, 1023);
  sockets::add(highest);
  become_readable();
  sockets::select_all();
  EXPECT_TRUE(FD_ISSET(highest, sockets::readable()));
  sockets::close(highest);
}

TEST_F(sockets_test, failed_wait_is_printed_with_its_error_number) {
  int closed = dup(here);
  close(closed);
  sockets::add(closed);
  sockets::select_all();
  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(sockets::num_ready(), -1);
  expect_console("select() failed! 9\n");
}

TEST_F(sockets_test, announced_output_is_forgotten_by_a_failed_wait_too) {
  faults::of()["select"] = {0, 1, EINVAL};
  sockets::mark_ready(here);
  sockets::select_all();
  EXPECT_TRUE(is_empty(sockets::ready()));
  expect_console("select() failed! 22\n");
}

// The servers look at the errno of the wait. It must not be the errno of a console that cannot be written to.
TEST_F(sockets_test, failed_wait_keeps_its_error_number_even_if_printing_fails) {
  faults::of()["select"] = {0, 1, ENOMEM};
  EXPECT_TRUE(run_in_child([] {
    const int full = open("/dev/full", O_WRONLY);
    setvbuf(stdout, nullptr, _IONBF, 0);
    dup2(full, STDOUT_FILENO);
    sockets::select_all();
    if (sockets::num_ready() != -1 || errno != ENOMEM) _exit(1);
  }));
}

TEST_F(sockets_test, interrupted_wait_is_silent_and_seen_by_its_result_and_errno) {
  EXPECT_TRUE(run_in_child([&] {
    interrupt_regularly([](int) {});
    sockets::select_all();
    EXPECT_EQ(errno, EINTR);
    EXPECT_EQ(sockets::num_ready(), -1);
  }));
  expect_console("");
}

TEST_F(sockets_test, failed_wait_is_not_flushed_to_the_console) {
  faults::of()["select"] = {0, 1, EBADF};
  EXPECT_TRUE(prints_without_flush(sockets::select_all));
  expect_console("select() failed! 9\n");
}

// A socket with the number of standard output would get what is printed, and send it to its peer.
TEST_F(sockets_test, closed_standard_descriptors_are_taken_and_open_ones_left_alone) {
  for (std::vector<int> closed : {std::vector<int>{0}, {1}, {2}, {0, 1, 2}, {}}) {
    EXPECT_TRUE(run_in_child([&] {
      const ino_t before = inode_of(there);
      for (int sock : {0, 1, 2}) dup2(there, sock);
      const int lowest = dup(there);  // of the descriptors that are free when 0 to 2 are taken
      ::close(lowest);
      for (int sock : closed) ::close(sock);
      if (take_standard_descriptors() != 1) _exit(1);
      for (int sock : {0, 1, 2}) {
        const bool is_taken = std::find(closed.begin(), closed.end(), sock) != closed.end();
        if ((inode_of(sock) == before) == is_taken || fcntl(sock, F_GETFD) == -1) _exit(2);
        if (is_taken && (fcntl(sock, F_GETFL) & O_ACCMODE) != O_RDWR) _exit(4);
      }
      if (socket(AF_INET, SOCK_STREAM, 0) != lowest) _exit(3);  // no other descriptor was left open
      _exit(0);
    }));
  }
}

TEST_F(sockets_test, sigpipe_is_ignored_without_a_call_by_main) {
  struct sigaction action = {};
  sigaction(SIGPIPE, nullptr, &action);
  EXPECT_EQ(action.sa_handler, SIG_IGN);
}

TEST_F(sockets_test, write_to_a_closed_peer_fails_with_an_error) {
  close(there);
  there = -1;
  EXPECT_EQ(write(here, "x", 1), -1);
  EXPECT_EQ(errno, EPIPE);
}

TEST_F(sockets_test, ignore_sigpipe_ignores_it_and_returns_1) {
  signal(SIGPIPE, SIG_DFL);
  EXPECT_EQ(ignore_sigpipe(), 1);
  EXPECT_EQ(signal(SIGPIPE, SIG_IGN), SIG_IGN);
}

TEST_F(sockets_test, descriptor_limit_of_1024_becomes_2048_where_allowed_and_any_other_stays) {
  constexpr rlim_t any = 4096;
  struct {
    rlim_t soft, hard, expected;
  } const cases[] = {{1024, any, 2048},  {1024, 2048, 2048}, {1024, 1500, 1500},
                     {1024, 1024, 1024}, {512, any, 512},    {1023, any, 1023},
                     {1025, any, 1025},  {2048, any, 2048},  {4096, any, 4096}};
  for (const auto& c : cases) {
    EXPECT_TRUE(run_in_child([&] {
      rlimit limit = {c.soft, c.hard};
      ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
      sockets::raise_descriptor_limit();
      getrlimit(RLIMIT_NOFILE, &limit);
      EXPECT_EQ(limit.rlim_cur, c.expected);
      EXPECT_EQ(limit.rlim_max, c.hard);
    })) << c.soft
        << " of " << c.hard;
  }
}

}  // namespace
