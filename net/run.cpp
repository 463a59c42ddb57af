// The two main loops. Each has a stop flag of its own, which its SIGINT handler sets.

#include <csignal>
#include <cstdio>

#include "net/server.h"
#include "net/sockets.h"

namespace {

// One flag for each `Loop`, and the signal handler that raises it and does nothing else. A template, so that
// both loops share this text and neither the other's flag.
template <class Loop>
struct stop_flag {
  static volatile sig_atomic_t& done() {
    static volatile sig_atomic_t flag = false;  // of a type that a handler may store to
    return flag;
  }
  static void on_signal(int) { done() = true; }
};

}  // namespace

void abstract_server::run() {
  struct local : stop_flag<local> {};

  signal(SIGINT, local::on_signal);
  if (!start()) return;
  while (!local::done()) {
    sockets::select_all();
    update();
  }
  printf("Shutting down...\n");
}

void abstract_server::run(abstract_server** servers) {
  struct local : stop_flag<local> {};

  signal(SIGINT, local::on_signal);
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
  printf("Shutting down...\n");
}
