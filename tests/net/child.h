/* child: runs a part of a test in a copy of the process, if it would change the process of the tests.
 *
 *     EXPECT_TRUE(run_in_child([&] { ... }));            a copy of the process; failed expectations count
 *     EXPECT_TRUE(prints_without_flush([&] { ... }));    the output stays in the buffer until it ends
 *     interrupt_regularly(handler);                      a signal every 5 ms */
#pragma once

#include <gtest/gtest.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <functional>

#include "tests/support/client.h"

/* Runs `body` in a copy of the process. The copy prints to the test's standard output. True when the copy
 * ended on its own, within 10 s and without a failed expectation. */
inline bool run_in_child(const std::function<void()>& body) {
  fflush(stdout);
  pid_t child = fork();
  if (child < 0) return false;
  if (child == 0) {
    body();
    fflush(stdout);
    _exit(testing::Test::HasFailure() ? 1 : 0);
  }
  int status = -1;
  auto wait_a_little = [&] { usleep(1000); };
  if (!repeat_until(wait_a_little, [&] { return waitpid(child, &status, WNOHANG) == child; })) {
    kill(child, SIGKILL);
    waitpid(child, &status, 0);
  }
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

/* Runs `body` in a child whose standard output has a large buffer. False when something was written out
 * before the body ended. After the call, everything that the body printed has been written. */
inline bool prints_without_flush(const std::function<void()>& body) {
  return run_in_child([&] {
    setvbuf(stdout, nullptr, _IOFBF, 65536);
    const off_t before = lseek(STDOUT_FILENO, 0, SEEK_END);
    body();
    EXPECT_EQ(lseek(STDOUT_FILENO, 0, SEEK_END), before);
  });
}

/* From now on a signal comes every 5 ms, calls `handler` and interrupts waits. */
inline void interrupt_regularly(void (*handler)(int)) {
  signal(SIGALRM, handler);
  itimerval every = {{0, 5000}, {0, 5000}};
  setitimer(ITIMER_REAL, &every, nullptr);
}
