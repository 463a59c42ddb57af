/* The servers: they accept, service and end connections.
 *
 * abstract_server is the interface and the main loops. server_base is the engine: the connection list and one
 * turn of service, update(). server<T> adds only the creation of T objects.
 *
 * A server owns its listening socket and the connections in its list; it closes and deletes them. One
 * thread drives all servers: a turn is one sockets::select_all(), then update() on each. update() makes two
 * passes over its list. The service pass reads from a connection that is readable, or else writes to one that
 * is writable. The output pass asks each connection without pending output for more.
 *
 * server_base alone decides what happens to a ready socket; the hooks recv() and send() only move bytes:
 * (1) The service pass reads from a connection until the transport has no more for now, but at most 64 times,
 *     and only until it has read its share. The share is a MiB divided by the number of ready sockets, but at
 *     least 64 KiB. The rest is read in the next turn, which follows at once.
 * (2) A socket may be ready although the transport moves nothing and does not ask to wait. After 64 such
 *     turns in a row the connection is dead: its time-out becomes 0. So the next turn ends it and prints "N
 *     has timed out.", even if it had no time-out. Otherwise the loop would spin.
 * (3) The transport may also move nothing 64 turns in a row, but ask to wait in the last of them. Then the
 *     connection lives: a TLS session may have to write before it can read, or the reverse. But the loop
 *     would spin here, too, so every second wait leaves out the direction in which nothing moves, and
 *     watches the other one.
 * (4) When a hook throws, only its own connection ends, and this is printed. But a std::string is thrown
 *     again, and the run ends: it is the error text for a missing entry point of OpenSSL. */
#pragma once

#include <cstdint>
#include <new>

#include "base/linkedlist.h"
#include "net/connection.h"

struct abstract_server {
  abstract_server() = default;
  abstract_server(const abstract_server&) = delete;
  abstract_server& operator=(const abstract_server&) = delete;
  virtual ~abstract_server() = default;

  /* Opens the listening socket, if the server needs one. Returns false, after printing the cause, when it
   * cannot. */
  virtual bool start() = 0;

  /* One turn of service, after sockets::select_all(). */
  virtual void update() = 0;

  /* Called by the loop over several servers after a turn in which no socket was ready. */
  virtual void on_idle() {}

  /* Hands over a new connection object for the client whose address is `ip`, with the same bits as in
   * connection::ip. Null refuses the client. */
  virtual connection* create_connection(int ip) = 0;

  /* Called when the connection object is complete and its socket is non-blocking. False refuses the
   * client. */
  virtual bool on_accept(connection* conn) = 0;

  /* Called when the connection has ended: its socket is closed and in no set. The object is deleted right
   * after the call. Not called for a client that was refused. */
  virtual void on_remove(connection* conn) = 0;

  /* Reads up to `len` bytes. Returns their number, 0 when the peer has closed, negative when nothing could be
   * read. Both transport hooks also report through errno. The server sets it to 0 before each call and looks
   * at it after the call. EAGAIN or EINTR, with any result, means that nothing more can be read or written
   * for now, and that select() will tell when this changes. Otherwise a turn in which nothing moves counts
   * for rule 2. A hook without a system call does not change errno. */
  virtual int recv(connection* conn, char* buf, int len) = 0;

  /* Writes up to `len` bytes. Returns how many were accepted; 0 or negative when none could be accepted.
   * `len` is 0 in the last call when everything is sent; it may be negative (rule 3 in net/connection.h). */
  virtual int send(connection* conn, char* buf, int len) = 0;

  /* Starts this server and serves until SIGINT. When it cannot start, returns at once; start() has printed
   * the cause. on_idle() is not called. */
  void run();

  /* Starts the servers of a null-terminated array, which is borrowed, and drives them in its order until
   * SIGINT. When one cannot start, prints a message and returns at once; the other servers stay as they
   * are. */
  static void run(abstract_server** servers);
};

struct server_base : abstract_server {
  int sock = -1;                              // the listening socket; -1 when not listening
  base::linkedlist<connection*> connections;  // owned; in order of arrival, outgoing ones included
  int port;                                   // 0: never listens, only services what is put into the list
  bool localhost_only;
  int64_t last_report = 0;  // when report() last looked at the count, in seconds since the epoch
  int last_count = -1;      // the count printed last

  explicit server_base(int listen_port, bool on_localhost_only = false);
  ~server_base() override;

  bool start() override;
  void update() override;
  bool on_accept(connection*) override { return true; }
  // The destructor calls this on_remove() and not that of a derived server, whose part is already destroyed.
  // cppcheck-suppress virtualCallInConstructor
  void on_remove(connection*) override {}
  int recv(connection* conn, char* buf, int len) override;
  int send(connection* conn, char* buf, int len) override;

  /* Ends all connections in order of arrival and closes the listening socket. May be called again. */
  void stop();

  /* Accepts one client. Returns false only when accept() has failed, which is printed; update() then ends all
   * connections and starts the server again. A client that is refused, or for which a hook throws, counts as
   * accepted. */
  bool accept_connection();

  /* Takes over a connection with its socket: this server services it and ends it. Does not call on_accept():
   * a TLS server would have no session for a connection that was opened elsewhere. Throws std::bad_alloc when
   * there is no memory; nothing is taken over then. */
  void add_connection(connection* conn);

  /* Closes the connection's socket, calls on_remove() and deletes the connection. The caller has removed it
   * from the list. */
  void end_connection(connection* conn);

 private:
  static constexpr int most_fruitless_turns = 64;

  enum directions { reading, writing };

  static void print_failure(int failed);
  void restart();
  void prefetch_connections() const;
  template <class F>
  void for_each_connection(F serve);
  void service(connection* conn, int64_t now);
  void read_from(connection* conn, int64_t now);
  void write_to(connection* conn, int64_t now);
  int send_pending(connection* conn);
  static void note_fruitless_turn(connection* conn, directions direction, bool is_waiting, int64_t now);
  void ask_for_output(connection* conn);
  void report(int64_t now);
  void unlink_and_end(connection* conn);
};

template <class T>
struct server : server_base {
  explicit server(int listen_port, bool on_localhost_only = false)
      : server_base(listen_port, on_localhost_only) {}

  connection* create_connection(int) override { return new (std::nothrow) T; }
};
