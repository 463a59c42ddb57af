/* Fixtures for the relay: a client connection driven by hand, and a real server between real peers.
 *
 * Both run in one thread, capture the console, and check at their end that every descriptor is closed and
 * taken out of the registry. Expected responses are written out here, not taken from the code.
 *
 * Words of both:
 *     map("a", upstream.port());           the host's requests go to this port; closed.port() refuses
 *     request_to("a", "/path", lines, body)
 *     forwarded("a", "/path", lines, body) what the upstream gets for it
 *     not_found, bad_gateway               the fixed answers
 *     echo_page(request_to("a"), ip)       the echo page for a request without a body
 *     expect_unflushed([&] { ... }, "...");
 *
 * Of proxy_object<T>, the connection by hand:
 *     receive("...");                      the client has sent these bytes
 *     to_upstream(), to_client()           what the pipe holds for each side
 *     ask(*proxy)                          what the connection gives a server that asks for output
 *     upstreams(), upstream_side(1)        how many were opened, and the second of them
 *     end_upstream();                      the first upstream connection ends
 *     start_over();                        a new client takes the place of this one
 *
 * Of proxy_server<T>, the real server:
 *     client c = connect();                a client that is accepted; served(c) is the server's side
 *     client u = accept();                 the connection that the server has opened to the upstream
 *     send_all(c, "...");                  the server takes its turns while the bytes go
 *     expect_bytes(u, "...");              these bytes come, and the connection stays
 *     expect_end(c, "...");                these bytes come, and then the end
 *     expect_nothing(c);
 *     turn();                              one wait, one update
 *     serve_until(condition);              takes turns until the condition holds */
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <functional>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "net/server.h"
#include "net/sockets.h"
#include "proxy/reverse_proxy.h"
#include "tests/net/child.h"
#include "tests/support/client.h"
#include "tests/support/console.h"
#include "tests/support/faults.h"
#include "tests/support/turns.h"

const std::string not_found =
    "HTTP/1.1 404 Not Found\r\nContent-Type: text/plain\r\nContent-Length: 0\r\n\r\n";
const std::string bad_gateway =
    "HTTP/1.1 502 Bad Gateway\r\nContent-Type: text/plain\r\nConnection: close\r\n\r\nUnable to connect";
const std::string tunnel_opened = "HTTP/1.1 200 OK\r\n\r\n";
const std::string no_server_line = "Error! No server assigned for proxy connections.\n";

/* A request for `host` with the given header lines, each ended by CRLF, and body. */
inline std::string request_to(const std::string& host, const std::string& path = "/",
                              const std::string& lines = "", const std::string& body = "") {
  return "GET " + path + " HTTP/1.1\r\nHost: " + host + "\r\n" + lines + "\r\n" + body;
}

/* What the upstream gets for request_to() from a client at `ip`, as long as no line is filtered. */
inline std::string forwarded(const std::string& host, const std::string& path = "/",
                             const std::string& lines = "", const std::string& body = "",
                             const std::string& ip = "127.0.0.1") {
  return "GET " + path + " HTTP/1.1\r\nHost: " + host + "\r\n" + lines + "X-Forwarded-For: " + ip +
         "\r\n\r\n" + body;
}

/* The header line that announces `body`. */
inline std::string length_of(const std::string& body) {
  return "Content-Length: " + std::to_string(body.size()) + "\r\n";
}

/* The answer to a request without a body, from a client at `ip`, for a host that is mapped to -1. */
inline std::string echo_page(const std::string& request, const std::string& ip = "127.0.0.1") {
  const std::string body = request + "Your IPv4 address is: " + ip;
  return "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\n" + length_of(body) + "\r\n" + body;
}

/* `count` bytes of any value, the same bytes each time. */
inline std::string random_bytes(size_t count, unsigned seed = 1) {
  std::mt19937 next(seed);
  std::string bytes(count, '\0');
  for (char& c : bytes) c = static_cast<char>(next() & 255);
  return bytes;
}

/* What a connection gave when it was asked for output. */
struct output {
  std::string bytes;
  bool stays_open;
};

/* Asks for output as a server does. The buffer has exactly `cap` bytes, so a write after them is noticed. */
inline output ask(connection& conn, int cap = connection::out_capacity) {
  std::vector<char> buf(static_cast<size_t>(cap));
  int len = 0;
  bool stays_open = conn.on_send(buf.data(), cap, &len);
  return {std::string(buf.data(), static_cast<size_t>(len)), stays_open};
}

/* Hands bytes to a connection as a server does, in a buffer that is freed after the call. */
inline void deliver(connection& conn, const std::string& bytes) {
  std::vector<char> buf(bytes.begin(), bytes.end());
  conn.on_recv(buf.data(), static_cast<int>(buf.size()));
}

/* The connection at a place of a server's list. */
inline connection* connection_at(server_base& s, int index) {
  connection* conn = nullptr;
  s.connections.begin();
  for (int i = 0; i < index; i++) s.connections.next();
  return s.connections.current(conn) ? conn : nullptr;
}

/* How many descriptors this process has open. */
inline int open_descriptors() {
  std::filesystem::directory_iterator files("/proc/self/fd");
  return static_cast<int>(std::distance(begin(files), end(files)));
}

/* Expects, when it is destroyed, as many open descriptors as at its creation, and none of them registered. */
struct descriptor_check {
  int before = open_descriptors();

  ~descriptor_check() {
    EXPECT_EQ(open_descriptors(), before);
    const fd_set none = {};
    EXPECT_EQ(memcmp(sockets::all(), &none, sizeof(none)), 0) << "a closed socket is still registered";
    EXPECT_EQ(memcmp(sockets::ready(), &none, sizeof(none)), 0) << "a closed socket is still to be woken";
  }
};

/* What both fixtures share: a clean process, the console, one upstream, and the host map. */
struct proxy_test : testing::Test {
  descriptor_check descriptors;  // first, so that it is destroyed after everything else
  console out;
  listener upstream;
  refusing_port closed;

  proxy_test() { FD_ZERO(sockets::ready()); }

  ~proxy_test() override {
    http_proxy::g_server() = nullptr;
    base::hashmap<int>& hosts = reverse_proxy::hosts();
    while (hosts.count > 0) hosts.remove(std::string(*hosts.keys[0]));
    faults::clear();
  }

  /* Expects that `run`, in a copy of the process, prints `text` and leaves it in the buffer. */
  void expect_unflushed(const std::function<void()>& run, const std::string& text) {
    out.clear();
    EXPECT_TRUE(prints_without_flush(run));
    EXPECT_EQ(out.text(), text);
  }

  void map(const std::string& host, int port) { reverse_proxy::hosts().set(host, port); }
};

/* One client connection, from 10.0.0.7:51234, which the tests give its bytes by hand. Upstream connections go
 * to `relay`, which takes no turn unless a test says so. */
template <class T>
struct proxy_object : proxy_test {
  server<T> relay{0};
  std::unique_ptr<T> proxy = std::make_unique<T>();

  proxy_object() {
    http_proxy::g_server() = &relay;
    set_peer();
  }

  void receive(const std::string& bytes) { deliver(*proxy, bytes); }
  std::string to_upstream() { return proxy->pipe->to_upstream; }
  std::string to_client() { return proxy->pipe->to_client; }
  bool is_idle() { return proxy->pipe == &proxy->idle_pipe; }
  int upstreams() { return relay.connections.count; }

  /* The upstream side with this index, in the order of opening. */
  proxy_connection& upstream_side(int index = 0) {
    return dynamic_cast<proxy_connection&>(*connection_at(relay, index));
  }

  /* Ends the first upstream side as a server does. */
  void end_upstream() { relay.end_connection(relay.connections.pop()); }

  /* Replaces the client connection by a new one. */
  void start_over() {
    proxy = std::make_unique<T>();
    set_peer();
    relay.stop();
    upstream.accept();
  }

 private:
  void set_peer() {
    proxy->ip = htonl(0x0a000007);
    proxy->port = 51234;
  }
};

/* A server of T on a free port, which also carries the upstream connections. It takes a turn when a test says
 * so or waits for something. */
template <class T>
struct proxy_server : proxy_test {
  server<T> front{free_port(), true};

  proxy_server() {
    http_proxy::g_server() = &front;
    silence_reports(front);
    EXPECT_TRUE(front.start());
    out.clear();
  }

  void turn() { take_turn(front); }

  bool serve_until(const std::function<bool()>& done) {
    return repeat_until([this] { turn(); }, done);
  }

  /* Serves until no socket was ready in a whole wait. */
  void serve_until_quiet() {
    serve_until([] { return sockets::num_ready() == 0; });
  }

  /* A client that has been accepted. */
  client connect() {
    client c(front.port);
    EXPECT_TRUE(serve_until([&] { return find(c) != nullptr; }));
    return c;
  }

  /* The server's object for a client that is connected. */
  T& served(const client& c) { return dynamic_cast<T&>(*find(c)); }

  /* The connection that waits at `from`, once there is one. */
  template <class Listener>
  client accept(Listener& from) {
    std::unique_ptr<client> peer;
    EXPECT_TRUE(serve_until([&] {
      peer = std::make_unique<client>(from.accept());
      return peer->ok();
    }));
    return std::move(*peer);
  }
  client accept() { return accept(upstream); }

  /* Sends all of `bytes` while the server goes on. */
  void send_all(client& from, const std::string& bytes) {
    size_t sent = from.send(bytes);
    EXPECT_TRUE(serve_until([&] {
      sent += from.send(bytes.substr(sent, 65536));
      return sent == bytes.size();
    }));
  }

  /* Reads from `to`, expects `bytes`, and then forgets them. */
  void expect_bytes(client& to, const std::string& bytes) {
    serve_until([&] { return !to.poll() || to.received().size() >= bytes.size(); });
    expect_same(to.received(), bytes);
    EXPECT_FALSE(to.is_closed());
    to.forget_received();
  }

  /* Reads from `to`, expects `bytes` and then the end of the stream. */
  void expect_end(client& to, const std::string& bytes = "") {
    EXPECT_TRUE(serve_until([&] { return !to.poll(); })) << "it is still open";
    expect_same(to.received(), bytes);
  }

  /* Expects neither bytes nor the end of the stream. */
  void expect_nothing(client& to) {
    serve_until_quiet();
    EXPECT_TRUE(to.poll()) << "it is closed";
    expect_same(to.received(), "");
  }

 private:
  connection* find(const client& c) {
    connection* conn = nullptr;
    for (front.connections.begin(); front.connections.current(conn); front.connections.next())
      if (conn->port == c.local_port()) return conn;
    return nullptr;
  }

  // Long texts are not printed.
  void expect_same(const std::string& is, const std::string& wanted) {
    if (wanted.size() < 4096)
      EXPECT_EQ(is, wanted);
    else
      EXPECT_TRUE(is == wanted) << is.size() << " bytes came, " << wanted.size() << " were wanted";
  }
};
