/* proxy_connection: the upstream side of a relayed client.
 *
 * Opened by http_proxy and owned by the server in http_proxy::g_server(), which services it like an
 * accepted connection. Holds one reference to the pipe that it shares with its client. */
#pragma once

#include "net/connection.h"
#include "proxy/proxy_pipe.h"

struct proxy_connection : connection {
  proxy_pipe* pipe;  // shared

  /* Serves `upstream_sock`, which the server that gets this connection closes; takes part in `shared_pipe`
   * with a reference of its own. Never times out. */
  proxy_connection(int upstream_sock, proxy_pipe* shared_pipe);

  /* Tells the pipe what the upstream has not taken, and drops the reference. */
  ~proxy_connection() override;

  void on_recv(char* data, int len) override;
  bool on_send(char* buf, int cap, int* len) override;
};
