#include "proxy/http_proxy.h"

#include <cstdio>

#include "base/find.h"
#include "base/host_name.h"

http_proxy::http_proxy() {
  idle_pipe.refs = 2;
  websocket_enabled = false;
}

server_base*& http_proxy::g_server() {
  static server_base* server = nullptr;
  return server;
}

void http_proxy::begin_body() {
  is_answered_here = false;
  end_of_body = find_body_end(head);
  if (end_of_body == body_end::by_length) return;
  chunks = {};
  keep_request_open();
}

// The request stays open while content_received is less than content_length, which is the largest number
// here. A body without a limit on its length may make content_received reach this number. So the count wraps
// one byte early.
void http_proxy::keep_request_open() {
  content_length = INT32_MAX;
  if (content_received == INT32_MAX) content_received = INT32_MIN;
}

namespace {

// A text that cannot be a host is refused like a name that does not resolve, but without a look-up, because
// all clients would wait for it.
int connect(const std::string& host, int32_t port) {
  if (base::is_host_name(host)) return sockets::connect(host, port, false);
  printf("getaddrinfo() failed for host %s:%d!\n", host.c_str(), port);
  return -1;
}

}  // namespace

bool http_proxy::open_upstream(const std::string& host, int32_t target_port) {
  auto* fresh = new proxy_pipe;  // first, because it may throw; deleted with its last reference
  drop_pipe();
  pipe = fresh;
  pipe->client_sock = sock;

  const int upstream_sock = connect(host, target_port);
  proxy_connection* upstream = nullptr;
  if (upstream_sock != -1 && !sockets::has_failed(upstream_sock)) {
    // Deleted by the server that gets it. Without memory for it, the upstream counts as unreachable.
    upstream = new (std::nothrow) proxy_connection(upstream_sock, pipe);
  }
  if (!upstream) {
    sockets::close(upstream_sock);
    pipe->lose_upstream(0);
    keep_alive = false;
    return false;
  }
  if (!hand_over(upstream)) {
    sockets::close(upstream_sock);
    delete upstream;  // its destructor tells the pipe
    keep_alive = false;
    return false;
  }
  timeout = -1;
  return true;
}

// Gives the upstream to the server. Returns false when there is no memory: the caller then keeps `upstream`.
bool http_proxy::hand_over(proxy_connection* upstream) {
  if (!g_server()) {
    printf("%s\n", "Error! No server assigned for proxy connections.");
    unserved = upstream;
    return true;
  }
  try {
    g_server()->add_connection(upstream);
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

void http_proxy::on_data(char* data, int len) {
  if (len <= 0) return;
  const auto size = static_cast<size_t>(len);
  if (end_of_body != body_end::by_length) {
    follow_chunks(data, size);
    if (is_answered_here) return;
  }
  // While output to the client is under way, on_send() is not called. So bytes that nobody will take would
  // pile up.
  if (!has_upstream() && out_len != 0) pipe->to_upstream.clear();
  pipe->append_to_upstream(data, size);
}

// Bytes that arrive in one read with the end of the body belong to this request, too, as with every other
// request.
void http_proxy::follow_chunks(const char* data, size_t len) {
  if (end_of_body == body_end::by_last_chunk) chunks.parse(data, len);
  if (chunks.has_ended())
    content_length = content_received;
  else
    keep_request_open();
}

bool http_proxy::should_block(const std::string&) {
  return false;
}

std::string http_proxy::copy_headers(const std::string& head) {
  std::string lines;
  append_headers(lines, head);
  return lines;
}

namespace {

// Whether the line at `start`, of at least two bytes, is for the proxy alone. For most lines the first byte
// decides.
bool is_dropped(const std::string& head, size_t start) {
  if (head[start] == 'P') return head.compare(start, 5, "Proxy") == 0;
  if (head[start] == 'C') return head.compare(start, 10, "Connection") == 0;
  return false;
}

}  // namespace

void http_proxy::append_headers(std::string& to, const std::string& head) {
  size_t p = base::find_line_end(head);
  if (p == 0 || p == std::string::npos) return;
  size_t kept = p + 2;  // the lines from here to p + 2 are still to be copied
  for (;;) {
    // The search starts at p + 4, so that the empty line at the end of a head is not taken for a header. If
    // the line at p + 2 has only one byte, its end is skipped, too. Then it counts as part of the next line.
    size_t end = base::find_line_end(head, p + 4);
    if (end == std::string::npos) break;
    if (is_dropped(head, p + 2)) {
      to.append(head, kept, p + 2 - kept);
      kept = end + 2;
    }
    p = end;
  }
  to.append(head, kept, p + 2 - kept);
}

void http_proxy::answer(const std::string& text) {
  is_answered_here = true;
  tell_client(text);
}

void http_proxy::tell_client(const std::string& text) {
  pipe->append_to_client(text.data(), text.size());
  sockets::mark_ready(sock);  // the idle pipe does not know the socket
}

bool http_proxy::on_send(char* buf, int cap, int* len) {
  if (!has_upstream()) pipe->to_upstream.clear();
  return pipe->give_client(buf, cap, len);
}

http_proxy::~http_proxy() {
  drop_pipe();
}

// Leaves the pipe. This may free it, so `pipe` must be set again before it is used. First the pipe forgets
// this side's socket. That socket may be closed already, and the objects that end in this function must not
// wake it.
void http_proxy::drop_pipe() {
  pipe->client_sock = -1;
  if (unserved) {
    sockets::close(unserved->sock);
    delete unserved;
    unserved = nullptr;
  }
  pipe->release();
}
