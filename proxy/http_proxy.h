/* http_proxy: the client side of a relay, and a forward proxy in its own right (RFC 9110, section 7.6).
 *
 * Each request chooses an upstream in on_headers; its head and body go into the pipe shared with that
 * upstream's proxy_connection, and what comes back goes out as it is. An upstream serves consecutive
 * requests as long as they go to the same place and it is alive.
 *
 * http_connection takes the Content-Length for the length of a body. A body in chunks has none: while it is
 * under way, content_length is a number that content_received does not reach, and at its end it is
 * content_received, which completes the request. Where body_end or chunked_body finds no end that every
 * reader would agree with, the request stays open, and all that the client still sends is its body.
 *
 * Answers do not go through http_connection::write(): what the client gets is the pipe's to_client and
 * nothing else. Holds one reference to `pipe`. WebSocket upgrades are relayed, not answered. */
#pragma once

#include <string>

#include "http/body_end.h"
#include "http/chunked_body.h"
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

  // This request, set anew by begin_body().
  body_end end_of_body = body_end::by_length;
  chunked_body chunks;            // reads along with a body that ends by its last chunk
  bool is_answered_here = false;  // by the proxy itself: no upstream gets anything of it

  http_proxy();
  ~http_proxy() override;

  bool on_send(char* buf, int cap, int* len) override;

  /* Serves the request as a forward proxy: an absolute URL is fetched, CONNECT opens a tunnel. */
  void on_headers() override;

  /* Queues body bytes for the upstream of the pipe, also those of a request that was answered here. Where the
   * pipe has no upstream, nobody will ever take them: they are dropped when the client is asked for output.
   * Of a request that was answered here, chunks are dropped at once: the upstream of an earlier request would
   * take them for a request. */
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
  /* Every on_headers() calls this first: the end of the request's body is looked for from now on. */
  void begin_body();

  /* Lets go of the current upstream and opens another one. The caller notes what it is to be known by:
   * upstream_port, and upstream_host where names count. False when it cannot be reached: the client has then
   * been answered with the 502, behind which the connection closes; the time-out is as before. */
  bool open_upstream(const std::string& host, int32_t port);

  /* Answers the request instead of an upstream. */
  void answer(const std::string& text);

  /* Whether the pipe has an upstream at its other end. */
  bool has_upstream() const { return pipe != &idle_pipe && pipe->refs > 1; }

 private:
  void keep_request_open();
  void follow_chunks(const char* data, size_t len);
  void tell_client(const std::string& text);
  bool hand_over(proxy_connection* upstream);
  void drop_pipe();
};
