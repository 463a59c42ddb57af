/* redirector: answers every request with a permanent redirect to the same host and path on HTTPS. */
#pragma once

#include <cstdint>

#include "http/http_connection.h"

struct redirector : http_connection {
  /* Queues the 301 and has the connection close behind it. The query is not carried over, and of the Host
   * value only what stands before its first colon. */
  void on_request() override;

  /* The HTTPS port that clients are sent to. */
  static int32_t& ssl_port();
};
