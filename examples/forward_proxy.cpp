/* forward_proxy: a proxy for a browser or curl -x. It hides the hosts that it is told to block.
 *
 *     forward_proxy [port] [blocked host]...
 *
 * A blocked host blocks the hosts below it, too: example.org blocks www.example.org. Letter case does not
 * count, and numbers are compared as addresses: 127.1 is 127.0.0.1. No name is looked up for the comparison.
 * So a client still reaches a blocked host by another name of that host, or by its address, unless these are
 * blocked as well. To fetch a page, the proxy looks up the name, and all clients wait for the resolver.
 *
 * It listens on localhost only, because a client that reaches it can reach any host. */

#include <arpa/inet.h>
#include <sys/socket.h>

#include <bitset>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <string>

#include "base/hashmap.h"
#include "base/host_name.h"
#include "base/split_url.h"
#include "base/text.h"
#include "net/server.h"
#include "net/sockets.h"
#include "proxy/http_proxy.h"

namespace {

/* The blocked hosts: the keys. */
base::hashmap<int>& blocked() {
  static base::hashmap<int> hosts;
  return hosts;
}

/* The one spelling by which hosts are compared. An address has many spellings, and the resolver reads them as
 * inet_aton() does. */
std::string usual_spelling(std::string name) {
  for (char& c : name) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  if (!name.empty() && name.back() == '.') name.pop_back();  // a dot at the end: the same host
  in_addr address = {};
  return inet_aton(name.c_str(), &address) != 0 ? inet_ntoa(address) : name;
}

struct filtering_proxy : http_proxy {
  /* A proxy that is asked to fetch from itself gets the same request again and again, and each time costs two
   * connections and a copy. So a request that comes over a connection of our own is refused. */
  void on_headers() override {
    if (!is_from_ourselves()) {
      const proxy_pipe* before = pipe;
      http_proxy::on_headers();
      if (pipe != before) note_upstream();
      return;
    }
    begin_body();
    printf("%s\n", info(true).c_str());
    answer("HTTP/1.1 508 Loop Detected\r\nContent-Type: text/plain\r\nContent-Length: 0\r\n\r\n");
  }

  bool should_block(const std::string& host) override {
    // A text that cannot be a host is refused later, without a look-up. With many dots it would take long
    // here.
    if (!base::is_host_name(host)) return false;
    std::string name = usual_spelling(host);
    for (;;) {
      if (blocked().get(name)) return true;
      size_t dot = name.find('.');
      if (dot == std::string::npos) return false;
      name.erase(0, dot + 1);
    }
  }

  ~filtering_proxy() override { own_ports()[static_cast<size_t>(port)] = false; }

 private:
  /* The local ports of our connections to ourselves. A port stays noted until the connection that was
   * accepted from it ends. The upstream connection may end earlier: when a client asks and leaves at once, it
   * ends before the request comes back. */
  static std::bitset<65536>& own_ports() {
    static std::bitset<65536> ports;
    return ports;
  }

  /* All clients are on this machine, where a port belongs to one client at a time. */
  bool is_from_ourselves() const { return own_ports()[static_cast<size_t>(port)]; }

  /* Notes the local port of an upstream connection to ourselves. The resolver takes the port modulo 65536. */
  void note_upstream() const {
    sockaddr_in local = {};
    socklen_t length = sizeof(local);
    if (static_cast<uint16_t>(upstream_port) != g_server()->port || pipe->upstream_sock == -1) return;
    if (getsockname(pipe->upstream_sock, reinterpret_cast<sockaddr*>(&local), &length) == 0 &&
        local.sin_addr.s_addr == htonl(INADDR_LOOPBACK))
      own_ports()[ntohs(local.sin_port)] = true;
  }
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    printf("USAGE: forward_proxy [port] [blocked host]...\n");
    return 1;
  }
  for (int i = 2; i < argc; i++) blocked().set(usual_spelling(split_url::utf8_to_idn(argv[i])), 1);
  sockets::raise_descriptor_limit();
  server<filtering_proxy> http(base::parse_int(argv[1]), true);
  http_proxy::g_server() = &http;  // the upstream connections live in the same server
  http.run();
  return 0;
}
