#include "net/sockets.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>

namespace sockets {

namespace {

constexpr int longest_wait_us = 100000;  // a time-out or SIGINT is noticed at most this late

constexpr rlim_t usual_limit = 1024;  // descriptors
constexpr rlim_t raised_limit = 2048;

fd_set* new_set() {
  auto* set = new fd_set;  // never deleted, because sockets may be closed while the process ends
  FD_ZERO(set);
  return set;
}

// What the passes ask of the next wait, and of no later one.
struct {
  bool is_any = false;  // some set below is not empty; most turns need not look at them
  fd_set unread;        // readable without asking select()
  fd_set not_read;      // left out for reading,
  fd_set not_written;   // and for writing
  fd_set granted;       // what `unread` was for the last wait
} wishes;

void wish(fd_set& set, int sock) {
  if (!fits(sock)) return;
  FD_SET(sock, &set);
  wishes.is_any = true;
}

void forget_wishes() {
  wishes.granted = wishes.unread;
  for (fd_set* set : {&wishes.unread, &wishes.not_read, &wishes.not_written}) FD_ZERO(set);
  wishes.is_any = false;
}

// Takes the members of `set` out of `from`.
void subtract(fd_set* from, const fd_set& set) {
  for (int sock = 0; sock < FD_SETSIZE; sock++) {
    if (FD_ISSET(sock, &set)) FD_CLR(sock, from);
  }
}

// Applies the wishes to the sets for the next wait. Returns how long this wait may be, in microseconds.
int grant_wishes() {
  subtract(readable(), wishes.not_read);
  subtract(writable(), wishes.not_written);
  for (int sock = 0; sock < FD_SETSIZE; sock++) {
    if (FD_ISSET(sock, &wishes.unread)) return 0;
  }
  return longest_wait_us;
}

// Adds the sockets of mark_unread() to the results: they are readable, whatever select() has found.
void add_unread() {
  for (int sock = 0; sock < FD_SETSIZE; sock++) {
    if (!FD_ISSET(sock, &wishes.unread) || FD_ISSET(sock, readable())) continue;
    FD_SET(sock, readable());
    num_ready()++;
  }
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
  FD_ZERO(&wishes.granted);
  timeval wait = {0, wishes.is_any ? grant_wishes() : longest_wait_us};
  num_ready() = select(FD_SETSIZE, readable(), writable(), errors(), &wait);
  if (num_ready() < 0 && errno != EINTR) {
    int cause = errno;
    printf("select() failed! %d\n", cause);
    errno = cause;  // the servers look at it
  }
  // After a wait that a signal has ended, the servers skip the turn, and the wishes hold for the next wait.
  // After any other error the servers end all connections and start again.
  if (wishes.is_any && num_ready() >= 0) {
    add_unread();
    forget_wishes();
  }
}

void mark_unread(int sock) {
  wish(wishes.unread, sock);
}

void mark_passed_over(int sock) {
  mark_ready(sock);
  if (has(&wishes.granted, sock)) mark_unread(sock);
}

void rest_reading(int sock) {
  wish(wishes.not_read, sock);
}

void rest_writing(int sock) {
  wish(wishes.not_written, sock);
}

void add(int sock) {
  if (fits(sock)) FD_SET(sock, all());
}

void mark_ready(int sock) {
  if (has(all(), sock)) FD_SET(sock, ready());
}

void close(int sock) {
  if (sock < 0) return;
  ::close(sock);
  if (!fits(sock)) return;
  for (fd_set* set : {all(), ready(), readable(), writable(), errors(), &wishes.unread, &wishes.not_read,
                      &wishes.not_written, &wishes.granted}) {
    FD_CLR(sock, set);
  }
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

int take_standard_descriptors() {
  int taken = 0;
  while (taken >= 0 && taken <= STDERR_FILENO) taken = open("/dev/null", O_RDWR);
  if (taken >= 0) close(taken);
  return 1;
}

namespace {

const int sigpipe_is_ignored = ignore_sigpipe();
const int standard_descriptors_are_taken = take_standard_descriptors();

}  // namespace
