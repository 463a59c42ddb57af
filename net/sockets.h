/* sockets: the process-wide readiness sets, the one select() of a turn, and the opening of TCP sockets.
 *
 * Every server and connection of the process shares the sets. Each lives from its first use to the end of
 * the process. They hold descriptors below FD_SETSIZE (1024). add() and its companions pass over any other,
 * -1 included: FD_SET would write beside the set. Failures are printed on standard output and returned. */
#pragma once

#include <sys/select.h>

#include <string>

namespace sockets {

fd_set* all();       // the registry: every socket that is serviced, from its opening to its closing
fd_set* ready();     // sockets with output waiting; handed to select() and emptied by every select_all()
fd_set* readable();  // results of the last select(), for reading,
fd_set* writable();  // for writing,
fd_set* errors();    // and for exceptional conditions
int& num_ready();    // what the last select() returned: -1 on failure, 0 on time-out

/* One wait, of 100 ms at most, for any registered socket to become readable and any ready() one writable.
 * Called once a turn, before the servers' update(). Afterwards errno is as select() left it. What the four
 * functions below have asked for holds for this wait and no later one. */
void select_all();

/* Says that the transport holds bytes of `sock` that select() knows nothing of: the next wait does not block,
 * and `sock` is readable after it. */
void mark_unread(int sock);

/* Says that this turn's pass leaves `sock` out: its output, and the unread bytes that the last wait was told
 * of, are the business of the next wait. */
void mark_passed_over(int sock);

/* Leaves `sock` out of the next wait, for reading or for writing: the transport can do nothing in this
 * direction, although the socket is ready, until something else has happened. */
void rest_reading(int sock);
void rest_writing(int sock);

/* Whether `sock` can stand in an fd_set. */
inline bool fits(int sock) {
  return sock >= 0 && sock < FD_SETSIZE;
}

inline bool has(fd_set* set, int sock) {
  return fits(sock) && FD_ISSET(sock, set);
}

/* Registers `sock` for reading and exceptional conditions. The caller's server closes it, by close(). */
void add(int sock);

/* Says that there is output for `sock`: the next wait, but no later one, ends when it can take some. Nothing
 * happens for a socket that is not registered: it may be closed already, and select() fails on such a one. */
void mark_ready(int sock);

/* Closes `sock` and takes it out of every set, this turn's results included: its number may come back
 * before the turn is over, and the new socket must not be taken for ready. Nothing happens for a negative
 * one. */
void close(int sock);

/* Opens a non-blocking listening TCP socket on IPv4, prints what it binds to, and stores its descriptor in
 * `sock`. What it accepts has TCP_NODELAY and keepalive set. Returns false, after printing the cause, when
 * no socket could be had; nothing stays open then, and `sock` is -1, or untouched if not even an address was
 * found. The caller registers the socket and closes it. */
bool listen(int& sock, bool localhost_only, int port);

/* Opens a TCP connection to `host` over IPv4 and returns its descriptor, which the caller closes, or -1
 * after printing the cause. Not blocking: only the first address is tried and the connection may still be
 * under way, or have failed already: see has_failed(). Blocking: the addresses are tried in turn, and the
 * socket stays in blocking mode. */
int connect(const std::string& host, int port, bool blocking);

/* Whether the connection started on `sock` is known to have failed. On loopback a refusal is known before
 * connect() returns. */
bool has_failed(int sock);

/* Raises the limit on open descriptors from the usual 1024 to 2048 where that is allowed. With 1024, the
 * client that is one too many makes accept() fail, which restarts the server; with more it is accepted and
 * turned away. Any other limit was set on purpose and stays. */
void raise_descriptor_limit();

}  // namespace sockets

/* Makes a write to a closed peer fail with an error instead of ending the process. Called before main() in
 * every program that links this library. Returns 1. */
int ignore_sigpipe();

/* Opens /dev/null in the place of standard input, output and error where they are closed. A socket would get
 * their number otherwise, and its peer what is printed. Called before main() like the one above, and returns
 * 1 like it. */
int take_standard_descriptors();
