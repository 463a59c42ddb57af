#include "net/sockets.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>

namespace sockets {

namespace {

constexpr int longest_wait_us = 100000;  // bounds how late a time-out or SIGINT is seen

constexpr rlim_t usual_limit = 1024;  // descriptors
constexpr rlim_t raised_limit = 2048;

fd_set* new_set() {
  auto* set = new fd_set;  // never deleted: sockets are closed until the very end of the process
  FD_ZERO(set);
  return set;
}

}  // namespace

fd_set* all() {
  static fd_set* set = new_set();
  return set;
}

fd_set* ready() {
  static fd_set* set = new_set();
  return set;
}

fd_set* readable() {
  static fd_set* set = new_set();
  return set;
}

fd_set* writable() {
  static fd_set* set = new_set();
  return set;
}

fd_set* errors() {
  static fd_set* set = new_set();
  return set;
}

int& num_ready() {
  static int count = 0;
  return count;
}

void select_all() {
  *readable() = *all();
  *writable() = *ready();
  *errors() = *all();
  FD_ZERO(ready());
  timeval wait = {0, longest_wait_us};
  num_ready() = select(FD_SETSIZE, readable(), writable(), errors(), &wait);
  if (num_ready() < 0 && errno != EINTR) {
    int cause = errno;
    printf("select() failed! %d\n", cause);
    errno = cause;  // the servers look at it
  }
}

void add(int sock) {
  if (fits(sock)) FD_SET(sock, all());
}

void mark_ready(int sock) {
  if (fits(sock)) FD_SET(sock, ready());
}

void close(int sock) {
  if (sock < 0) return;
  ::close(sock);
  if (!fits(sock)) return;
  for (fd_set* set : {all(), ready(), readable(), writable(), errors()}) FD_CLR(sock, set);
}

void raise_descriptor_limit() {
  rlimit limit;
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur != usual_limit) return;
  limit.rlim_cur = std::min(limit.rlim_max, raised_limit);
  setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace sockets

int ignore_sigpipe() {
  signal(SIGPIPE, SIG_IGN);
  return 1;
}

namespace {

const int sigpipe_is_ignored = ignore_sigpipe();

}  // namespace
