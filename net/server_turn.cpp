// A turn of service: what a server does with the sockets that the last select() found ready.

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <string>

#include "net/server.h"
#include "net/sockets.h"

namespace {

constexpr int read_capacity = 1048576;  // bytes

constexpr int most_reads = 64;  // in a pass; this matters for TLS, whose records may hold one byte
constexpr int least_share = 65536;

// How many bytes a pass takes from one connection. The last read may exceed this number. All connections
// together should take about a MiB, which is still in the cache when it leaves the pipes and the output
// buffers. With a MiB for each connection, a response of 1 MiB with 16 clients took 1.8 times the processor
// time, and 1.5 times over TLS (wrk, two busy cores of a virtual machine, medians of the ratios of 5 rounds
// in which the two builds ran alternately). With 64 KiB for a connection that is alone, a long download took
// 1.2 times the processor time.
int share_of_a_pass() {
  return std::max(least_share, read_capacity / std::max(1, sockets::num_ready()));
}

constexpr int report_interval = 5;  // seconds

// The buffer that all servers read into: a pass uses it for one connection at a time. A page of it costs
// memory only after bytes were read into it. It is static, because an allocation at the first read could fail
// in the middle of a turn.
alignas(4096) char read_buffer[read_capacity];

// Both times are cut to 32 bits, which wrap in 2038; their difference stays right.
bool has_timed_out(const connection* conn, int64_t now) {
  auto idle_seconds =
      static_cast<int32_t>(static_cast<uint32_t>(now) - static_cast<uint32_t>(conn->last_active));
  // idle_seconds is tested first: `timeout` lies after the output buffer, in memory that a pass over many
  // busy connections need not touch.
  return idle_seconds > 0 && conn->timeout >= 0 && idle_seconds > conn->timeout;
}

// Takes the time of now, not of the turn's beginning: a hook may take long, for example while the console is
// full, and the next turn must not count that time as silence.
void note_activity(connection* conn) {
  conn->last_active = static_cast<int32_t>(time(nullptr));
}

// Whether errno, as a transport hook has left it, says that select() will tell when there is more to do.
bool asks_to_wait(int cause) {
  return cause == EAGAIN || cause == EINTR;
}

}  // namespace

// One turn: read or write what the last select() found ready, accept one client, then ask every connection
// without output for more. This output is sent in the next turn.
void server_base::update() {
  if (sockets::num_ready() < 0) {
    if (errno == EINTR) return;
    restart();
    return;
  }
  const int64_t now = time(nullptr);
  prefetch_connections();
  for_each_connection([=](connection* conn) { service(conn, now); });
  if (port != 0 && sockets::has(sockets::readable(), sock) && !accept_connection()) restart();
  for_each_connection([=](connection* conn) { ask_for_output(conn); });
  report(now);
}

// Fetches the fields at the front of every connection into the cache, all at once. Otherwise a pass over many
// connections would wait for these fields of one connection after the other: a kept-alive request with 400
// clients took 1.08 times the processor time (wrk, median of the ratios of 31 rounds in which the two builds
// ran alternately, on two busy cores; shorter runs gave 1.06 and 0.99).
void server_base::prefetch_connections() const {
  for (auto* node = connections.head->next; node; node = node->next) __builtin_prefetch(node->value);
}

// Makes one pass over the list and calls `serve` for each connection.
template <class F>
void server_base::for_each_connection(F serve) {
  connection*& selected = connection::selected();
  connection* conn = nullptr;
  for (connections.begin(); connections.current(conn); connections.next()) {
    selected = conn;
    try {
      serve(conn);
    } catch (const std::string&) {
      selected = nullptr;
      throw;  // `conn` may be gone: the hook for its end may throw a std::string, too
    } catch (...) {
      print_failure(conn->sock);
      unlink_and_end(conn);
    }
  }
  selected = nullptr;  // the last one may be gone
}

void server_base::service(connection* conn, int64_t now) {
  if (has_timed_out(conn, now)) {
    printf("%d has timed out.\n", conn->sock);
    unlink_and_end(conn);
  } else if (sockets::has(sockets::errors(), conn->sock)) {
    printf("%d has errors.\n", conn->sock);
    unlink_and_end(conn);
  } else if (sockets::has(sockets::readable(), conn->sock)) {
    read_from(conn, now);
  } else if (sockets::has(sockets::writable(), conn->sock)) {
    write_to(conn, now);
  }
}

// When the peer closes, the connection ends, even with output pending. The reads are limited, because a
// client that sends faster than its bytes are handled must not keep the others waiting.
void server_base::read_from(connection* conn, int64_t now) {
  int n = 0;
  int cause = 0;
  int bytes = 0;
  const int share = share_of_a_pass();
  for (int reads = 0; reads < most_reads && bytes < share; reads++) {
    errno = 0;  // for the hook to set
    n = recv(conn, read_buffer, read_capacity);
    cause = errno;
    if (n <= 0) break;
    conn->on_recv(read_buffer, n);
    note_activity(conn);
    bytes += n;
    if (asks_to_wait(cause)) break;
  }
  if (n == 0)
    unlink_and_end(conn);
  else if (bytes == 0)
    note_fruitless_turn(conn, reading, asks_to_wait(cause), now);
  else
    conn->fruitless = conn->unexplained = 0;
  if (n > 0 && !asks_to_wait(cause)) sockets::mark_unread(conn->sock);
}

void server_base::write_to(connection* conn, int64_t now) {
  const int before = conn->out_len;
  int n = 0;
  while ((n = send_pending(conn)) > 0) {
    conn->out_len -= n;
    conn->out_pos += n;
  }
  const bool is_waiting = asks_to_wait(errno);
  if (before != 0) note_activity(conn);  // else the connection was only woken, see mark_ready()
  if (!conn->keep && conn->out_len == 0)
    unlink_and_end(conn);
  else if (conn->out_len < before)
    conn->fruitless = conn->unexplained = 0;
  else if (conn->out_len != 0)
    note_fruitless_turn(conn, writing, is_waiting, now);
}

int server_base::send_pending(connection* conn) {
  errno = 0;  // for the hook to set
  return send(conn, conn->out + conn->out_pos, conn->out_len);
}

// Called when the socket was ready and nothing moved; see rules 2 and 3 in the header.
void server_base::note_fruitless_turn(connection* conn, directions direction, bool is_waiting, int64_t now) {
  if (conn->fruitless < most_fruitless_turns) conn->fruitless++;
  if (is_waiting)
    conn->unexplained = 0;
  else if (conn->unexplained < most_fruitless_turns)
    conn->unexplained++;

  if (conn->unexplained == most_fruitless_turns) {
    conn->timeout = 0;
    conn->last_active = static_cast<int32_t>(now - 2);  // times out even if the clock goes back by a second
  } else if (!is_waiting || conn->fruitless < most_fruitless_turns) {
    return;
  } else if (direction == reading) {
    sockets::rest_reading(conn->sock);
    sockets::mark_ready(conn->sock);  // ends the wait when the session can write what it must
  } else {
    sockets::rest_writing(conn->sock);
  }
}

// When everything is sent, the last call by write_to() has length 0, which needs no system call. A negative
// length must never reach the system, which would take it for a huge one.
int server_base::send(connection* conn, char* buf, int len) {
  if (len <= 0) return 0;
  return static_cast<int>(::send(conn->sock, buf, static_cast<size_t>(len), 0));
}

// Fewer bytes than asked for mean that the socket is drained, so another call would only report that.
int server_base::recv(connection* conn, char* buf, int len) {
  const int most = std::min(len, share_of_a_pass());
  int n = static_cast<int>(::recv(conn->sock, buf, static_cast<size_t>(most), 0));
  if (n > 0 && n < most) errno = EAGAIN;
  return n;
}

void server_base::ask_for_output(connection* conn) {
  if (conn->out_len != 0) {
    sockets::mark_ready(conn->sock);
    return;
  }
  conn->fill_output();
  if (conn->out_len != 0) {
    if (conn->out_len > 0) conn->out_pos = 0;
    sockets::mark_ready(conn->sock);
  } else if (!conn->keep) {
    unlink_and_end(conn);
  }
}

// Prints the number of connections in the first turn, then every 6 seconds. After a 0, nothing is printed
// until there are connections again.
void server_base::report(int64_t now) {
  if (now - last_report <= report_interval) return;
  if (connections.count != 0 || last_count != 0) printf("%d connections\n", connections.count);
  last_count = connections.count;
  last_report = now;
}
