// The life of a server and of its connections; the turns of service are in net/server_turn.cpp.

#include "net/server.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <exception>
#include <string>

#include "net/sockets.h"

namespace {

// Stores the socket and the peer's address in a connection.
void introduce(connection* conn, int client, const sockaddr_in& peer) {
  conn->port = ntohs(peer.sin_port);
  conn->sock = client;
  conn->ip = peer.sin_addr.s_addr;
}

// Turns away a client that is not in the list yet. `conn` may be null.
void refuse(connection* conn, int client) {
  delete conn;
  sockets::close(client);
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
  connection* conn = nullptr;
  bool is_welcome = false;
  try {
    // A client whose descriptor no set can hold is turned away; this does not disturb the other clients.
    if (sockets::fits(client)) conn = create_connection(static_cast<int>(peer.sin_addr.s_addr));
    if (conn) {
      introduce(conn, client, peer);
      conn->server = this;
      is_welcome = on_accept(conn);
    }
    if (is_welcome)
      add_connection(conn);
    else
      refuse(conn, client);
  } catch (...) {
    if (is_welcome)
      end_connection(conn);
    else
      refuse(conn, client);
    print_failure(client);
  }
  return true;
}

void server_base::add_connection(connection* conn) {
  connections.push(conn);
  sockets::add(conn->sock);
}

// Called after a failed select(), when nothing is known about any socket, or after a failed accept(). Ends
// all connections and starts the server again. When start() fails, the server goes on without listening.
void server_base::restart() {
  const int cause = errno;
  stop();
  start();
  errno = cause;  // the next server looks at it, too
}

// The pass skips the connection after this one (see base/linkedlist.h). That connection's output and unread
// bytes must not wait until something else happens.
void server_base::unlink_and_end(connection* conn) {
  connections.remove();
  if (connections.resume) sockets::mark_passed_over(connections.resume->value->sock);
  end_connection(conn);
}

// Called while an exception is handled: prints the descriptor of the connection whose hook has thrown. A
// std::string is not printed but thrown again, which ends the run.
void server_base::print_failure(int failed) {
  try {
    throw;
  } catch (const std::string&) {
    throw;
  } catch (const std::exception& e) {
    printf("%d has failed: %s\n", failed, e.what());
  } catch (...) {
    printf("%d has failed.\n", failed);
  }
}

void server_base::end_connection(connection* conn) {
  sockets::close(conn->sock);
  try {
    on_remove(conn);
  } catch (...) {
    const int ended = conn->sock;
    delete conn;
    print_failure(ended);
    return;
  }
  delete conn;
}

void server_base::stop() {
  if (port != 0) {
    sockets::close(sock);
    sock = -1;
  }
  while (connections.count > 0) end_connection(connections.pop());  // the oldest first
}
