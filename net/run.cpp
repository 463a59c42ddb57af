// The two main loops. Each has a stop flag of its own, which its SIGINT handler sets.

#include <poll.h>
#include <stdio_ext.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>

#include "net/server.h"
#include "net/sockets.h"

namespace {

constexpr int longest_farewell_ms = 1000;

using flag = volatile sig_atomic_t;  // a type that a signal handler may write

// Makes SIGINT call `handler` and interrupt a write that blocks. Otherwise the program would wait for ever
// when nobody reads its console.
void on_interrupt(void (*handler)(int)) {
  signal(SIGINT, handler);
  struct sigaction action;
  if (sigaction(SIGINT, nullptr, &action) != 0) return;
  action.sa_flags &= ~SA_RESTART;
  sigaction(SIGINT, &action, nullptr);
}

// Prints what is left to print after the loop has ended. If the console takes nothing more, this output is
// dropped, because exit() would wait for ever to write it.
void say_farewell() {
  pollfd console = {STDOUT_FILENO, POLLOUT, 0};
  if (poll(&console, 1, longest_farewell_ms) <= 0)  // a second SIGINT ends the wait, too
    __fpurge(stdout);
  else
    printf("Shutting down...\n");
}

}  // namespace

void abstract_server::run() {
  struct local {
    static flag& done() {
      static flag is_done = false;
      return is_done;
    }
    static void on_signal(int) { done() = true; }
  };

  on_interrupt(local::on_signal);
  if (!start()) return;
  while (!local::done()) {
    sockets::select_all();
    update();
  }
  say_farewell();
}

void abstract_server::run(abstract_server** servers) {
  struct local {
    static flag& done() {
      static flag is_done = false;
      return is_done;
    }
    static void on_signal(int) { done() = true; }
  };

  on_interrupt(local::on_signal);
  for (abstract_server** s = servers; *s; s++) {
    if (!(*s)->start()) {
      printf("Failed to start server(s).\n");
      return;
    }
  }
  while (!local::done()) {
    sockets::select_all();
    for (abstract_server** s = servers; *s; s++) (*s)->update();
    if (sockets::num_ready() != 0) continue;
    for (abstract_server** s = servers; *s; s++) (*s)->on_idle();
  }
  say_farewell();
}
