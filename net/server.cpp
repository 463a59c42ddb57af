#include "net/server.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <ctime>

#include "net/sockets.h"

namespace {

constexpr int read_capacity = 1048576;  // bytes

constexpr int report_interval = 5;  // seconds

// The buffer that all servers read into: a pass uses it for one connection at a time. Its pages come with the
// first bytes read into them. Allocated at the first read, it could be refused in the middle of a turn.
alignas(4096) char read_buffer[read_capacity];

// Both times are taken as 32 bits, which wrap in 2038; their difference does not.
bool has_timed_out(const connection* conn, int64_t now) {
  auto idle_seconds =
      static_cast<int32_t>(static_cast<uint32_t>(now) - static_cast<uint32_t>(conn->last_active));
  // Active in this very second: `timeout` stands behind the output buffer, in memory that a pass over many
  // busy connections need not touch.
  return idle_seconds > 0 && conn->timeout >= 0 && idle_seconds > conn->timeout;
}

}  // namespace

server_base::server_base(int listen_port, bool on_localhost_only)
    : port(listen_port), localhost_only(on_localhost_only) {}

server_base::~server_base() {
  stop();
}

bool server_base::start() {
  if (port == 0) return true;
  if (sock != -1) {
    printf("server already started\n");
    return false;
  }
  if (!sockets::listen(sock, localhost_only, port)) return false;
  sockets::add(sock);
  return true;
}

bool server_base::accept_connection() {
  sockaddr_in peer = {};
  socklen_t length = sizeof(peer);
  int client = accept4(sock, reinterpret_cast<sockaddr*>(&peer), &length, SOCK_NONBLOCK);
  if (client < 0) {
    printf("accept() failed\n");
    return false;
  }
  // A descriptor that no set can hold is turned away, and those already there go on undisturbed.
  connection* conn =
      sockets::fits(client) ? create_connection(static_cast<int>(peer.sin_addr.s_addr)) : nullptr;
  if (!conn) {
    sockets::close(client);
    return true;
  }
  conn->port = ntohs(peer.sin_port);
  conn->sock = client;
  conn->ip = peer.sin_addr.s_addr;
  conn->server = this;
  bool is_welcome = false;
  try {
    is_welcome = on_accept(conn);
  } catch (...) {  // the TLS server's hooks throw when the library lacks something
    refuse(conn);
    throw;
  }
  if (is_welcome)
    add_connection(conn);
  else
    refuse(conn);
  return true;
}

// Takes back a client that is not in the list yet.
void server_base::refuse(connection* conn) {
  const int client = conn->sock;
  delete conn;
  sockets::close(client);
}

void server_base::add_connection(connection* conn) {
  connections.push(conn);
  sockets::add(conn->sock);
}

// One turn: read and write what the last select() found ready, accept one client, then ask every connection
// without output for more. What it gives goes out in the next turn.
void server_base::update() {
  if (sockets::num_ready() < 0) {
    if (errno == EINTR) return;
    restart();
    return;
  }
  const int64_t now = time(nullptr);
  prefetch_connections();
  service_pass(now);
  if (port != 0 && sockets::has(sockets::readable(), sock) && !accept_connection()) restart();
  output_pass();
  report(now);
  connection::selected() = nullptr;
}

// After a failed select(), when nothing is known about any socket, or a failed accept(): all connections go.
void server_base::restart() {
  const int cause = errno;
  stop();
  start();
  errno = cause;  // the next server looks at it too
}

// Has the fields at the front of every connection fetched into the cache, all at once. In a pass over many
// connections each of these would be waited for, one after the other.
void server_base::prefetch_connections() const {
  for (auto* node = connections.head->next; node; node = node->next) __builtin_prefetch(node->value);
}

void server_base::service_pass(int64_t now) {
  fd_set* const errors = sockets::errors();
  fd_set* const readable = sockets::readable();
  fd_set* const writable = sockets::writable();
  connection*& selected = connection::selected();
  connection* conn = nullptr;
  for (connections.begin(); connections.current(conn); connections.next()) {
    selected = conn;
    if (has_timed_out(conn, now)) {
      printf("%d has timed out.\n", conn->sock);
      unlink_and_end(conn);
    } else if (sockets::has(errors, conn->sock)) {
      printf("%d has errors.\n", conn->sock);
      unlink_and_end(conn);
    } else if (sockets::has(readable, conn->sock)) {
      read_from(conn, now);
    } else if (sockets::has(writable, conn->sock)) {
      write_to(conn, now);
    }
  }
}

// Reads until the transport has no more for now. The peer's closing ends the connection, pending output or
// not.
void server_base::read_from(connection* conn, int64_t now) {
  already_read = nullptr;  // left over if a hook has thrown
  int n = 0;
  while ((n = recv(conn, read_buffer, read_capacity)) > 0) {
    conn->on_recv(read_buffer, n);
    conn->last_active = static_cast<int32_t>(now);
  }
  already_read = nullptr;  // what hooks read later goes to the system
  if (n == 0) unlink_and_end(conn);
}

void server_base::write_to(connection* conn, int64_t now) {
  // Before the loop: a transport that finds the peer gone sets it back, to have the connection time out.
  conn->last_active = static_cast<int32_t>(now);
  int n = 0;
  while ((n = send(conn, conn->out + conn->out_pos, conn->out_len)) > 0) {
    conn->out_len -= n;
    conn->out_pos += n;
  }
  if (!conn->keep && conn->out_len == 0) unlink_and_end(conn);
}

// One call of the system in a pass is enough: fewer bytes than asked for mean that the socket is drained, and
// as many as asked for are a stream that would keep the others waiting. So the second call of this hook in a
// pass is answered without asking.
int server_base::recv(connection* conn, char* buf, int len) {
  if (conn == already_read && conn == connection::selected()) {
    errno = EAGAIN;
    return -1;
  }
  int n = static_cast<int>(::recv(conn->sock, buf, static_cast<size_t>(len), 0));
  if (n > 0) already_read = conn;
  return n;
}

// The write loop ends with an empty write, which needs no system call; and a negative length must never
// reach the system, which would take it for a huge one.
int server_base::send(connection* conn, char* buf, int len) {
  if (len <= 0) return 0;
  return static_cast<int>(::send(conn->sock, buf, static_cast<size_t>(len), 0));
}

void server_base::output_pass() {
  connection*& selected = connection::selected();
  connection* conn = nullptr;
  for (connections.begin(); connections.current(conn); connections.next()) {
    selected = conn;
    if (conn->out_len != 0) {
      sockets::mark_ready(conn->sock);
      continue;
    }
    conn->keep = conn->on_send(conn->out, connection::out_capacity, &conn->out_len);
    if (conn->out_len != 0) {
      if (conn->out_len > 0) conn->out_pos = 0;
      sockets::mark_ready(conn->sock);
    } else if (!conn->keep) {
      unlink_and_end(conn);
    }
  }
}

// Says how many connections there are, while there are any, and once more when the last has gone.
void server_base::report(int64_t now) {
  if (now - last_report <= report_interval) return;
  if (connections.count != 0 || last_count != 0) printf("%d connections\n", connections.count);
  last_count = connections.count;
  last_report = now;
}

void server_base::unlink_and_end(connection* conn) {
  connections.remove();
  end_connection(conn);
}

void server_base::end_connection(connection* conn) {
  sockets::close(conn->sock);
  try {
    on_remove(conn);
  } catch (...) {
    delete conn;
    throw;
  }
  delete conn;
}

void server_base::stop() {
  if (port != 0) {
    sockets::close(sock);
    sock = -1;
  }
  while (connections.count > 0) end_connection(connections.pop());
}
