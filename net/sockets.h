/* sockets: the process-wide readiness sets, the one select() of a turn, and the opening of TCP sockets.
 *
 * All servers and connections of the process share the sets. Each set lives from its first use to the end of
 * the process. The sets hold descriptors below FD_SETSIZE (1024). add() and the other functions leave any
 * other descriptor, -1 included, out of the sets, because FD_SET would write outside them. Failures are
 * printed on standard output and returned.
 *
 * Here a socket "is ready" when it is in readable(), writable() or errors(), the results of the last wait.
 * The set ready() is not one of them: see mark_ready(). */
#pragma once

#include <sys/select.h>

#include <string>

namespace sockets {

fd_set* all();       // the registry: every socket that is serviced, from its opening to its closing
fd_set* ready();     // sockets that mark_ready() has marked for the next wait; each select_all() empties it
fd_set* readable();  // results of the last select(), for reading,
fd_set* writable();  // for writing,
fd_set* errors();    // and for exceptional conditions: urgent data. A broken connection is readable instead
int& num_ready();    // members of the three results together; -1 when select() has failed, 0 on time-out

/* Waits until a registered socket is readable or a socket in ready() is writable, at most 100 ms. Called once
 * a turn, before the servers' update(). Afterwards errno is as select() left it. What mark_unread(),
 * rest_reading() and rest_writing() ask for holds only for the first wait that follows and does not fail. */
void select_all();

/* Says that there may be more to read from `sock`, even if select() does not know of it. The next wait does
 * not block, and `sock` is readable after it. */
void mark_unread(int sock);

/* Says that this turn's pass skips `sock`, and calls mark_ready(). If mark_unread() was called for the last
 * wait, it holds for the next one, too. */
void mark_passed_over(int sock);

/* Leaves `sock` out of the next wait, for reading or for writing. The socket is ready in this direction, but
 * the transport can do nothing there until something else has happened. */
void rest_reading(int sock);
void rest_writing(int sock);

/* Whether `sock` fits into an fd_set. */
inline bool fits(int sock) {
  return sock >= 0 && sock < FD_SETSIZE;
}

inline bool has(fd_set* set, int sock) {
  return fits(sock) && FD_ISSET(sock, set);
}

/* Registers `sock` for reading and exceptional conditions. The caller's server closes it with close(). */
void add(int sock);

/* Says that there is output for `sock`, or that its server is to look at it: the next wait, but no later one,
 * ends when the socket can take output. A signal may end this wait; the next output pass then marks pending
 * output again. A socket that is not registered is ignored: it may be closed already, and select() fails on a
 * closed one. */
void mark_ready(int sock);

/* Closes `sock` and takes it out of every set, this turn's results included. Its number may be used again
 * before the turn is over, and the new socket must not be taken for ready. A negative number is ignored. */
void close(int sock);

/* Opens a non-blocking listening TCP socket on IPv4, prints what it binds to, and stores its descriptor in
 * `sock`. The caller registers the socket and closes it. Accepted sockets have TCP_NODELAY and keepalive set.
 * Returns false, after printing the cause, when the socket cannot be opened. Then nothing stays open, and
 * `sock` is -1, or unchanged if getaddrinfo() has failed. */
bool listen(int& sock, bool localhost_only, int port);

/* Opens a TCP connection to `host` over IPv4. Returns its descriptor, which the caller closes. Returns -1,
 * after printing the cause, when it cannot. If `blocking` is false, only the first address is tried, and the
 * connection may still be in progress or may have failed already: see has_failed(). If it is true, the
 * addresses are tried one after the other, and the socket stays in blocking mode. */
int connect(const std::string& host, int port, bool blocking);

/* Whether the connection started on `sock` is known to have failed. On loopback a refusal is known before
 * connect() returns. */
bool has_failed(int sock);

/* Raises the limit on open descriptors from the usual 1024 to 2048 where that is allowed. With 1024, one
 * client too many makes accept() fail, which restarts the server. With 2048, this client is accepted and
 * turned away. Any other limit was set on purpose and stays. */
void raise_descriptor_limit();

}  // namespace sockets

/* Makes a write to a closed peer fail with an error instead of ending the process. Called before main() in
 * every program that links this library. Returns 1. */
int ignore_sigpipe();

/* Opens /dev/null in place of standard input, output and error where these are closed. Otherwise a socket
 * would get one of their numbers, and its peer would receive the printed messages. Called before main(), like
 * ignore_sigpipe(), and also returns 1. */
int take_standard_descriptors();
