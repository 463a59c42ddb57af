/* forward_proxy: a proxy for a browser or curl -x, which hides the hosts that it is told to block.
 *
 *     forward_proxy [port] [blocked host]...
 *
 * The hosts below a blocked one are blocked, too: example.org blocks www.example.org. Letter case does not
 * count. Listens on localhost only, for it lets anybody who reaches it go anywhere. */

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "base/hashmap.h"
#include "net/server.h"
#include "net/sockets.h"
#include "proxy/http_proxy.h"

namespace {

/* The blocked hosts: the keys. */
base::hashmap<int>& blocked() {
  static base::hashmap<int> hosts;
  return hosts;
}

std::string lower_case(std::string name) {
  for (char& c : name) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  return name;
}

struct filtering_proxy : http_proxy {
  bool should_block(const std::string& host) override {
    std::string name = lower_case(host);
    if (!name.empty() && name.back() == '.') name.pop_back();  // the same host, spelled to its end
    for (;;) {
      if (blocked().get(name)) return true;
      size_t dot = name.find('.');
      if (dot == std::string::npos) return false;
      name.erase(0, dot + 1);
    }
  }
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    printf("USAGE: forward_proxy [port] [blocked host]...\n");
    return 1;
  }
  for (int i = 2; i < argc; i++) blocked().set(lower_case(argv[i]), 1);
  sockets::raise_descriptor_limit();
  server<filtering_proxy> http(static_cast<int>(strtol(argv[1], nullptr, 10)), true);
  http_proxy::g_server() = &http;  // the upstream connections live in the same server
  http.run();
  return 0;
}
