/* mivo: the command line. Fills the host map and runs the server; see usage. Always exits with 0. */

#include <cstdio>
#include <cstring>

#include "base/text.h"
#include "main/https.h"
#include "net/server.h"
#include "net/sockets.h"
#include "proxy/http_proxy.h"
#include "proxy/reverse_proxy.h"

// printf() adds one more line feed.
const char* usage =
    "USAGE:\n\tmivo [port] -ssl [ssl_port] [key] [crt] -map [host_header] [local_port]\nWHERE:\n"
    "\t-[port] is the http port\n"
    "\t-if -ssl is specified, [ssl_port] is the https port and [key] and [crt]\n"
    "\t are the key and certificate file paths\n"
    "\t -if [port] is non-zero, it will redirect to [ssl_port]\n"
    "\t -if [port] is zero, it will be ignored\n"
    "\t-if -map is specified, incoming requests with [host_header] are forwarded\n"
    "\t to [local_port]\n"
    "\t -if [local_port] is -1, the [host_header] is mapped to an echo handler, which\n"
    "\t  is useful for debugging\n"
    "\t -multiple -map flags can be specified\n";

namespace {

struct tls_options {
  int port = 0;  // 0: no TLS
  const char* key = nullptr;
  const char* crt = nullptr;
};

// Reads the arguments after the port: fills the host map from -map and returns the last -ssl, whose texts
// belong to argv. A text that is not a number reads as 0, without a message. The values of a flag are taken
// as they are, even if they look like flags. A flag with too few values after it is ignored, like any unknown
// argument.
tls_options parse_arguments(int argc, char** argv) {
  tls_options tls;
  for (int i = 2; i < argc; i++) {
    const int rest = argc - i - 1;
    if (strcmp(argv[i], "-ssl") == 0 && rest >= 3) {
      tls = {base::parse_int(argv[i + 1]), argv[i + 2], argv[i + 3]};
      i += 3;
    } else if (strcmp(argv[i], "-map") == 0 && rest >= 2) {
      reverse_proxy::hosts().set(argv[i + 1], base::parse_int(argv[i + 2]));
      i += 2;
    }
  }
  return tls;
}

void run_http(int port) {
  server<reverse_proxy> http(port);
  http_proxy::g_server() = &http;
  http.run();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    printf("%s\n", usage);
    return 0;
  }
  sockets::raise_descriptor_limit();
  const int port = base::parse_int(argv[1]);
  const tls_options tls = parse_arguments(argc, argv);
  if (tls.port != 0)
    https::run<reverse_proxy>(tls.port, tls.key, tls.crt, port);
  else
    run_http(port);
  return 0;
}
