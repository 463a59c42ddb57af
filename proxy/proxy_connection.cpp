#include "proxy/proxy_connection.h"

proxy_connection::proxy_connection(int upstream_sock, proxy_pipe* shared_pipe) : pipe(shared_pipe) {
  sock = upstream_sock;
  timeout = -1;
  pipe->refs++;
  pipe->upstream_sock = sock;
}

void proxy_connection::on_recv(char* data, int len) {
  if (len > 0) pipe->append_to_client(data, static_cast<size_t>(len));
}

bool proxy_connection::on_send(char* buf, int cap, int* len) {
  return pipe->give_upstream(buf, cap, len);
}

proxy_connection::~proxy_connection() {
  pipe->upstream_sock = -1;
  if (pipe->refs > 1) pipe->lose_upstream(out_len);  // else the client is gone
  pipe->release();
}
