/* proxy_connection: the upstream side of a relayed client.
 *
 * http_proxy opens it. The server in http_proxy::g_server() owns it, and services it like an accepted
 * connection. It holds one reference to the pipe that it shares with its client. */
#pragma once

#include "net/connection.h"
#include "proxy/proxy_pipe.h"

struct proxy_connection : connection {
  proxy_pipe* pipe;  // shared

  /* Serves `upstream_sock`. The server that takes this connection closes the socket. Takes one reference to
   * `shared_pipe`. Never times out. */
  proxy_connection(int upstream_sock, proxy_pipe* shared_pipe);

  /* Tells the pipe how many bytes the upstream has not taken, and drops the reference. */
  ~proxy_connection() override;

  void on_recv(char* data, int len) override;
  bool on_send(char* buf, int cap, int* len) override;
};
