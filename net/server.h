/* The servers: who accepts, services and ends connections.
 *
 * abstract_server is the interface and the main loops. server_base is the engine: the connection list and
 * one turn of service, update(). server<T> adds only the making of T objects.
 *
 * A server owns its listening socket and the connections in its list; it closes and deletes them. One
 * thread drives all servers: a turn is one sockets::select_all(), then update() on each. */
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

  /* Opens the listening socket, if there is to be one. False after printing why it cannot. */
  virtual bool start() = 0;

  /* One turn of service, after sockets::select_all(). */
  virtual void update() = 0;

  /* Called by the loop over several servers after a turn in which no socket was ready. */
  virtual void on_idle() {}

  /* A new connection object for a client at `ip`, the bits of connection::ip, handed over to the caller. Null
   * refuses the client. */
  virtual connection* create_connection(int ip) = 0;

  /* Called when the connection is complete and its socket non-blocking. False refuses the client. */
  virtual bool on_accept(connection* conn) = 0;

  /* Called when the connection has ended: its socket is closed, the object is about to be deleted. */
  virtual void on_remove(connection* conn) = 0;

  /* Reads up to `len` bytes. Returns their number, 0 when the peer has closed, negative when there is
   * nothing now. */
  virtual int recv(connection* conn, char* buf, int len) = 0;

  /* Writes up to `len` bytes. Returns how many were taken; 0 or negative when none can be now. */
  virtual int send(connection* conn, char* buf, int len) = 0;

  /* Starts this server and serves until SIGINT; returns at once, without a word of its own, when it cannot
   * start. on_idle() is not called. */
  void run();

  /* Starts the servers of a null-terminated array, which is borrowed, and drives them in its order until
   * SIGINT. Returns at once, after saying so, when one cannot start; the others stay as they are. */
  static void run(abstract_server** servers);
};

struct server_base : abstract_server {
  int sock = -1;                              // the listening socket; -1 when not listening
  base::linkedlist<connection*> connections;  // owned; in order of arrival, outgoing ones included
  int port;                                   // 0: never listens, only services what is put into the list
  bool localhost_only;
  int64_t last_report = 0;  // when the count was last considered, in seconds since the epoch
  int last_count = -1;      // the count printed last

  explicit server_base(int listen_port, bool on_localhost_only = false);
  ~server_base() override;

  bool start() override;
  void update() override;
  bool on_accept(connection*) override { return true; }
  // The destructor ends connections without the hook of a derived server, whose part is gone by then.
  // cppcheck-suppress virtualCallInConstructor
  void on_remove(connection*) override {}
  int recv(connection* conn, char* buf, int len) override;
  int send(connection* conn, char* buf, int len) override;

  /* Ends all connections in order of arrival and closes the listening socket. May be called again. */
  void stop();

  /* Accepts one client. A refused one counts as accepted; false only when accept() failed, which is
   * printed. */
  bool accept_connection();

  /* Takes over a connection that was opened elsewhere, with its socket: services and ends it from now on. */
  void add_connection(connection* conn);

  /* Closes the connection's socket and deletes it. The caller has taken it off the list. */
  void end_connection(connection* conn);

 protected:
  connection* already_read = nullptr;  // what this pass has read from, set by recv(); only compared

 private:
  void restart();
  void refuse(connection* conn);
  void prefetch_connections() const;
  void service_pass(int64_t now);
  void output_pass();
  void report(int64_t now);
  void unlink_and_end(connection* conn);
  void read_from(connection* conn, int64_t now);
  void write_to(connection* conn, int64_t now);
};

template <class T>
struct server : server_base {
  explicit server(int listen_port, bool on_localhost_only = false)
      : server_base(listen_port, on_localhost_only) {}

  connection* create_connection(int) override { return new (std::nothrow) T; }
};
