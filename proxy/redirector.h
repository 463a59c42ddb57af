/* redirector: answers every request with a permanent redirect to the same host and path on HTTPS.
 *
 * Only on_request is replaced: the request line is printed as usual, and a WebSocket handshake is answered
 * by http_connection before on_request is asked. */
#pragma once

#include <cstdint>

#include "http/http_connection.h"

struct redirector : http_connection {
  /* Queues the 301 and has the connection close behind it. The query is not carried over, and of the Host
   * value only what stands before its first colon. */
  void on_request() override;

  /* The HTTPS port that clients are sent to: 443 at first, set before the servers start. */
  static int32_t& ssl_port();
};
