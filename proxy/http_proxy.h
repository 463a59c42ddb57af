/* http_proxy: the client side of a relay, and a forward proxy in its own right (RFC 9110, section 7.6).
 *
 * Each request chooses an upstream in on_headers; its head and body go into the pipe shared with that
 * upstream's proxy_connection, and what comes back goes out as it is. An upstream serves consecutive
 * requests as long as they go to the same place and it is alive.
 *
 * Answers do not go through http_connection::write(): what the client gets is the pipe's to_client and
 * nothing else. Holds one reference to `pipe`. WebSocket upgrades are relayed, not answered. */
#pragma once

#include <string>

#include "http/http_connection.h"
#include "net/server.h"
#include "proxy/proxy_connection.h"
#include "proxy/proxy_pipe.h"

struct http_proxy : http_connection {
  std::string upstream_host;  // where the current upstream is; the forward proxy alone sets and compares it
  int32_t upstream_port = 0;
  proxy_pipe* pipe = &idle_pipe;  // shared with the upstream while there is one
  proxy_pipe idle_pipe;           // until the first upstream is asked for; refs 2 keeps the connection open
  proxy_connection* unserved = nullptr;  // owned: an upstream that no server was there to take over

  http_proxy();
  ~http_proxy() override;

  bool on_send(char* buf, int cap, int* len) override;

  /* Serves the request as a forward proxy: an absolute URL is fetched, CONNECT opens a tunnel. */
  void on_headers() override;

  /* Queues body bytes for the upstream of the pipe, also those of a request that was answered here. Where the
   * pipe has no upstream, nobody will ever take them: they are dropped when the client is asked for output.
   */
  void on_data(char* data, int len) override;

  /* Nothing: on_headers has forwarded the request or answered it. */
  void on_request() override {}

  /* Whether the forward proxy is to hide `host`, a URL's host in ASCII form, behind a 404. */
  virtual bool should_block(const std::string& host);

  /* The header lines of a raw request head that are passed on: all but those that begin with "Proxy" or
   * "Connection", in their order, each ended by CRLF; neither the request line nor the empty line. A line
   * of one byte hides the line behind it from this test. */
  static std::string copy_headers(const std::string& head);

  /* Appends the same lines to `to`. */
  static void append_headers(std::string& to, const std::string& head);

  /* The server that services upstream connections, borrowed; null until the program sets it. Never a TLS
   * server: upstreams are spoken to in plain. */
  static server_base*& g_server();

 protected:
  /* Lets go of the current upstream and opens another one. The caller notes what it is to be known by:
   * upstream_port, and upstream_host where names count. False when it cannot be reached: the client has then
   * been answered with the 502, behind which the connection closes; the time-out is as before. */
  bool open_upstream(const std::string& host, int32_t port);

  /* Queues an answer of the proxy's own. */
  void answer(const std::string& text);

  /* Whether the pipe has an upstream at its other end. */
  bool has_upstream() const { return pipe != &idle_pipe && pipe->refs > 1; }

 private:
  bool hand_over(proxy_connection* upstream);
  void drop_pipe();
};
