#include "proxy/proxy_connection.h"

#include "proxy/answers.h"

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
  bool stay = pipe->drain(pipe->to_upstream, buf, cap, len);
  bytes_offered += *len;
  return stay;
}

proxy_connection::~proxy_connection() {
  pipe->upstream_sock = -1;
  const bool took_nothing = bytes_offered == out_len;  // all that was offered is still in `out`
  if (took_nothing && !pipe->answered && pipe->refs > 1) pipe->to_client = bad_gateway_answer;
  pipe->release();
}
