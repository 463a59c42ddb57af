#include "proxy/reverse_proxy.h"

#include <cstdio>

#include "base/text.h"
#include "proxy/answers.h"

base::hashmap<int>& reverse_proxy::hosts() {
  static base::hashmap<int> map;
  return map;
}

void reverse_proxy::on_headers() {
  begin_body();
  static std::string host, line;  // keep their memory for the next request, up to 64 KiB
  host.clear();
  append_header(host, "host", head);
  const int local_port = hosts().get(host);  // 0 when the host is not there
  line.assign("[").append(host).append("] ");
  append_info(line, true);
  printf("%s\n", line.c_str());
  base::empty_for_reuse(host);
  base::empty_for_reuse(line);
  if (local_port == echo_port) {
    answer_echo();
  } else if (local_port == 0) {
    answer(not_found_answer);
  } else {
    relay_to(local_port);
  }
}

void reverse_proxy::relay_to(int local_port) {
  // The idle pipe counts, as in forward_proxy.cpp. A new connection's upstream_port is 0, which no host has.
  const bool is_current = pipe->refs > 1 && upstream_port == local_port;
  if (!is_current) {
    if (!open_upstream("localhost", local_port)) return;
    upstream_port = local_port;
  }
  forward();
}

// Shows the client the head of its request, and its address.
void reverse_proxy::answer_echo() {
  const std::string body = head + "\r\nYour IPv4 address is: " + ip_text();
  answer("HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: " + std::to_string(body.size()) +
         "\r\n\r\n" + body);
}

// Passes the request head on, and adds the client's address after the client's own lines. If the client sent
// an X-Forwarded-For line, it stays: the upstream sees both lines, in this order.
void reverse_proxy::forward() {
  static std::string request;  // keeps its memory, like the texts in on_headers()
  request.assign(method).append(" ").append(target).append(" ").append(version).append("\r\n");
  append_headers(request, head);
  request += "X-Forwarded-For: ";
  base::append_dotted_quad(request, ip);
  request += "\r\n\r\n";
  pipe->append_to_upstream(request.data(), request.size());
  base::empty_for_reuse(request);
}
