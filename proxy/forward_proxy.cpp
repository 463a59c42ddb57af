// http_proxy as a forward proxy. reverse_proxy overrides this function.

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
  // This does not call has_upstream(), because the idle pipe counts here, too. Before the first upstream,
  // upstream_host is empty and upstream_port is 0. A target with an empty host and port 0 equals them. There
  // is nothing to connect to, so such a request stays in the idle pipe and gets no answer.
  const bool is_current = pipe->refs > 1 && upstream_host == url.host && upstream_port == url.port;
  if (!is_current) {
    if (!open_upstream(url.host, url.port)) return;
    upstream_host = url.host;
    upstream_port = url.port;
  }
  if (unserved) return;  // no server services the upstream; open_upstream() has printed that
  if (method == "CONNECT") {
    // Every further byte is body now, and the body is the tunnel. A tunnel may have any length.
    keep_alive = false;
    max_request_length = 0;
    tell_client(tunnel_answer);
    return;
  }
  std::string request = method + " " + url.path + " " + version + "\r\n" + copy_headers(head) + "\r\n";
  pipe->append_to_upstream(request.data(), request.size());
}
