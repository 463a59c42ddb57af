/* proxy_connection: the upstream side of a relayed client.
 *
 * Opened by http_proxy and owned by the server in http_proxy::g_server(), which services it like an
 * accepted connection. Holds one reference to the pipe that it shares with its client. */
#pragma once

#include "net/connection.h"
#include "proxy/proxy_pipe.h"

struct proxy_connection : connection {
  proxy_pipe* pipe;           // shared
  int64_t bytes_offered = 0;  // moved from the pipe to the output buffer so far; tells who took nothing

  /* Serves `upstream_sock`, which the server that gets this connection closes; takes part in `shared_pipe`
   * with a reference of its own. Never times out. */
  proxy_connection(int upstream_sock, proxy_pipe* shared_pipe);

  /* Drops the reference. An upstream that took no byte and gave none was not there: the client then gets
   * the 502 that a refused connection gives, instead of an empty reply. */
  ~proxy_connection() override;

  void on_recv(char* data, int len) override;
  bool on_send(char* buf, int cap, int* len) override;
};
