/* redirector: answers every request with a permanent redirect to the same host and path on HTTPS.
 *
 * It overrides on_request alone. So the request line is printed as usual, and http_connection answers a
 * WebSocket handshake before it calls on_request. */
#pragma once

#include <cstdint>

#include "http/http_connection.h"

struct redirector : http_connection {
  /* Queues the 301; the connection closes after it. The new URL has no query, and has only the part of the
   * Host value before its first colon. */
  void on_request() override;

  /* The HTTPS port that clients are sent to. It is 443 by default, and may be set only before the servers
   * start. */
  static int32_t& ssl_port();
};
