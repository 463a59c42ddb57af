/* client: a TCP peer for tests on 127.0.0.1. It does not block, so that one thread can be both ends.
 *
 * Owns its socket. Waits end after 10 s. A test that has waited in vain fails at its next comparison. */
#pragma once

#include <functional>
#include <string>

class client {
 public:
  /* Connects to `port`; `ok()` tells whether it worked. */
  explicit client(int port);

  /* Takes over a connected socket. */
  static client from_socket(int sock);

  client(client&& other) noexcept;
  client(const client&) = delete;
  client& operator=(const client&) = delete;
  ~client();

  bool ok() const { return sock_ >= 0; }
  int sock() const { return sock_; }
  int local_port() const;

  /* Sends what the socket takes now and returns the number of bytes. */
  size_t send(const std::string& bytes);

  /* Reads what is there now and adds it to received(). False once the peer has closed or reset. */
  bool poll();

  /* Everything read so far. */
  const std::string& received() const { return received_; }
  void forget_received() { received_.clear(); }

  /* Whether poll() has seen the end of the stream, or a reset. */
  bool is_closed() const { return closed_; }
  bool is_reset() const { return reset_; }

  void close();
  void close_with_reset();
  void shutdown_write();

 private:
  client() = default;

  int sock_ = -1;
  bool closed_ = false;
  bool reset_ = false;
  std::string received_;
};

/* listener: a TCP server socket on 127.0.0.1 for tests, in the role of an upstream. */
class listener {
 public:
  /* Listens on a free port, or on `port`. */
  explicit listener(int port = 0);
  listener(const listener&) = delete;
  listener& operator=(const listener&) = delete;
  ~listener();

  int port() const { return port_; }

  /* Accepts a client if one is waiting; otherwise the result is not ok(). */
  client accept();

 private:
  int sock_ = -1;
  int port_ = 0;
};

/* A port that no other process is given as long as this lives. It is bound, but nothing listens. */
class taken_port {
 public:
  taken_port(const taken_port&) = delete;
  taken_port& operator=(const taken_port&) = delete;
  ~taken_port();

  int port() const { return port_; }

 protected:
  explicit taken_port(bool is_shared);

 private:
  int sock_;
  int port_;
};

/* A port that refuses connections. */
struct refusing_port : taken_port {
  refusing_port() : taken_port(false) {}
};

/* A port for servers that let other sockets bind it, too, as ours do. */
struct shared_port : taken_port {
  shared_port() : taken_port(true) {}
};

/* A TCP port on which nothing listens and which no other process gets. There are 16, given in turn. */
int free_port();

/* Repeats `step` until `done` holds; false after 10 s. */
bool repeat_until(const std::function<void()>& step, const std::function<bool()>& done);
