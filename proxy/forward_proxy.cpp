// http_proxy as a forward proxy; reverse_proxy replaces this operation.

#include <cstdio>

#include "base/split_url.h"
#include "proxy/answers.h"
#include "proxy/http_proxy.h"

void http_proxy::on_headers() {
  begin_body();
  printf("%s\n", info(true).c_str());
  split_url url(target);
  if (should_block(url.host)) {
    answer(not_found_answer);
    return;
  }
  // Not has_upstream(): the idle pipe counts, too. Only a target without a host and with port 0 equals what
  // the fields say before the first upstream. There is nothing to connect to, and nothing will come of the
  // request.
  const bool is_current = pipe->refs > 1 && upstream_host == url.host && upstream_port == url.port;
  if (!is_current) {
    if (!open_upstream(url.host, url.port)) return;
    upstream_host = url.host;
    upstream_port = url.port;
  }
  if (unserved) return;  // there is no server to carry anything, which has been printed
  if (method == "CONNECT") {
    // Every further byte is body now, the body is the tunnel, and a tunnel has no length to exceed.
    keep_alive = false;
    max_request_length = 0;
    tell_client(tunnel_answer);
    return;
  }
  std::string request = method + " " + url.path + " " + version + "\r\n" + copy_headers(head) + "\r\n";
  pipe->append_to_upstream(request.data(), request.size());
}
