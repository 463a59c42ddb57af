/* http_proxy: the client side of a relay. On its own it is a forward proxy (RFC 9110, section 7.6).
 *
 * Each request chooses an upstream in on_headers. Its head and body go into the pipe that this object shares
 * with the upstream's proxy_connection, and what comes back goes out as it is. The next request uses the same
 * upstream if it goes to the same place and the upstream is alive.
 *
 * http_connection takes the Content-Length for the length of a body. A body in chunks has none. While such a
 * body is under way, content_length is a number that content_received does not reach. At its end,
 * content_length becomes content_received, which completes the request. When body_end or chunked_body finds
 * no end that every reader would agree with, the request stays open, and everything that the client still
 * sends is its body.
 *
 * Answers do not go through http_connection::write(): the client gets only what is in the pipe's to_client.
 * Holds one reference to `pipe`. WebSocket upgrades are relayed, not answered. */
#pragma once

#include <string>

#include "http/body_end.h"
#include "http/chunked_body.h"
#include "http/http_connection.h"
#include "net/server.h"
#include "proxy/proxy_connection.h"
#include "proxy/proxy_pipe.h"

struct http_proxy : http_connection {
  std::string upstream_host;  // of the current upstream; only the forward proxy sets and compares it
  int32_t upstream_port = 0;
  proxy_pipe* pipe = &idle_pipe;  // shared with the upstream while there is one
  proxy_pipe idle_pipe;           // until the first upstream is asked for; refs 2 keeps the connection open
  proxy_connection* unserved = nullptr;  // owned: an upstream, when there is no server to take it

  // This request; set again by begin_body().
  body_end end_of_body = body_end::by_length;
  chunked_body chunks;            // reads a body that ends by its last chunk
  bool is_answered_here = false;  // by the proxy itself; on_data() says what becomes of the body

  http_proxy();
  ~http_proxy() override;

  bool on_send(char* buf, int cap, int* len) override;

  /* Serves the request as a forward proxy: an absolute URL is fetched, CONNECT opens a tunnel. */
  void on_headers() override;

  /* Queues body bytes for the upstream of the pipe. If the pipe has no upstream, nobody will ever take them,
   * and on_send() drops them. The body of a request that was answered here is queued, too, if it has a
   * Content-Length. If the upstream of an earlier request is still there, it gets this body and takes it for
   * a request. Any other body of such a request is dropped at once, so that this does not happen. */
  void on_data(char* data, int len) override;

  /* Does nothing: on_headers has forwarded the request or answered it. */
  void on_request() override {}

  /* Whether the forward proxy answers requests for `host`, a URL's host in ASCII form, with a 404. */
  virtual bool should_block(const std::string& host);

  /* The header lines of a raw request head that are passed on: all lines except those that begin with "Proxy"
   * or "Connection", in their order, each ended by CRLF. The request line and the empty line are not among
   * them. A line after a line of one byte is passed on whatever it begins with. */
  static std::string copy_headers(const std::string& head);

  /* Appends the same lines to `to`. */
  static void append_headers(std::string& to, const std::string& head);

  /* The server that services upstream connections, borrowed; null until the program sets it. It must not be a
   * TLS server, because upstreams speak plain HTTP. */
  static server_base*& g_server();

 protected:
  /* Every on_headers() calls this first. It finds out how the request's body ends. */
  void begin_body();

  /* Leaves the current upstream and opens another one. Returns false when the new one cannot be reached: the
   * 502 is then queued for the client, the connection closes after it, and the time-out is as before. When
   * this returns true, the caller sets upstream_port, and also upstream_host if it compares hosts. */
  bool open_upstream(const std::string& host, int32_t port);

  /* Answers the request here, without an upstream. Queues `text`, a whole response with its head, for the
   * client. It is sent as it is, also to a HEAD. */
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
