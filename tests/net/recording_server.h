/* recording_server: a server that notes every call of its hooks, and of its connections' hooks, in one
 * journal. Connections are named c1, c2, ... in the order of their creation.
 *
 *     conn->answers = {gives("..."), gives_up()};   what the next calls of on_send() give
 *     conn->when_received = [&] { ... };            the hook calls it; each hook has such a when_...
 *     srv.accepts = false;                          on_accept() refuses
 *     srv.creates = false;                          create_connection() returns null
 *     srv.receives = [&](connection*, char*, int) { ... };
 *                                                   replaces recv(); srv.sends replaces send()
 *     is_open(sock)                                 whether the descriptor is open */
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>

#include <cstring>
#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "net/server.h"
#include "net/sockets.h"

using journal = std::vector<std::string>;

inline bool is_open(int sock) {
  return fcntl(sock, F_GETFD) != -1;
}

/* One call of on_send, as a test scripts it. */
using answer = std::function<bool(char* buf, int cap, int* len)>;

/* The answer that writes `bytes` and returns `keep`. */
inline answer gives(const std::string& bytes, bool keep = true) {
  return [=](char* buf, int, int* len) {
    memcpy(buf, bytes.data(), bytes.size());
    *len = static_cast<int>(bytes.size());
    return keep;
  };
}

/* The answer that writes nothing and ends the connection. */
inline answer gives_up() {
  return gives("", false);
}

struct recording_connection : connection {
  journal* notes = nullptr;  // borrowed; null: nothing is noted
  std::string name = "?";
  std::deque<answer> answers;  // of the next calls of on_send; after these it writes nothing and stays open
  std::function<void()> when_received;  // called at the end of on_recv, if set
  std::function<void()> when_deleted;   // called by the destructor, if set

  ~recording_connection() override {
    note("deleted");
    if (when_deleted) when_deleted();
  }

  void on_recv(char* data, int len) override {
    note("received " + std::string(data, static_cast<size_t>(len)));
    if (when_received) when_received();
  }

  bool on_send(char* buf, int cap, int* len) override {
    note("asked");
    if (answers.empty()) return true;
    answer next = answers.front();
    answers.pop_front();
    return next(buf, cap, len);
  }

  void note(const std::string& what) {
    if (notes) notes->push_back(name + " " + what);
  }
};

struct recording_server : server<recording_connection> {
  using transport = std::function<int(connection*, char*, int)>;

  journal* notes;  // borrowed
  int created = 0;
  bool creates = true;                           // false: create_connection returns null
  bool accepts = true;                           // the result of on_accept
  std::function<void(connection*)> when_called;  // called by every hook that has a connection, if set
  std::function<void()> when_created;            // called by create_connection(), if set
  std::function<void()> when_started;            // called at the end of start(), if set
  transport receives;                            // in place of recv(), if set
  transport sends;                               // in place of send(), if set

  recording_server(int listen_port, journal& its_notes, bool on_localhost_only = true)
      : server(listen_port, on_localhost_only), notes(&its_notes) {}

  bool start() override {
    notes->push_back("start");
    bool started = server::start();
    if (when_started) when_started();
    return started;
  }

  connection* create_connection(int ip) override {
    in_addr address = {static_cast<in_addr_t>(ip)};
    notes->push_back(std::string("create for ") + inet_ntoa(address));
    if (when_created) when_created();
    return creates ? make_connection() : nullptr;
  }

  bool on_accept(connection* conn) override {
    note(conn, "on_accept");
    return accepts;
  }

  void on_remove(connection* conn) override { note(conn, "on_remove, " + socket_state(conn->sock)); }

  int recv(connection* conn, char* buf, int len) override {
    int n = receives ? receives(conn, buf, len) : server::recv(conn, buf, len);
    note(conn, "recv " + std::to_string(len) + " -> " + std::to_string(n));
    return n;
  }

  int send(connection* conn, char* buf, int len) override {
    int n = sends ? sends(conn, buf, len) : server::send(conn, buf, len);
    note(conn, "send " + std::to_string(len) + " from " + std::to_string(buf - conn->out) + " -> " +
                   std::to_string(n));
    return n;
  }

  /* A connection that notes in the same journal and is in no list yet. The caller owns it. */
  recording_connection* make_connection() {
    auto* conn = static_cast<recording_connection*>(server::create_connection(0));
    conn->notes = notes;
    conn->name = "c" + std::to_string(++created);
    return conn;
  }

 private:
  void note(connection* conn, const std::string& what) {
    if (when_called) when_called(conn);
    static_cast<recording_connection*>(conn)->note(what);
  }

  static std::string socket_state(int sock) {
    return std::string(is_open(sock) ? "open" : "closed") +
           (sockets::has(sockets::all(), sock) ? " and registered" : " and unregistered");
  }
};
