// A server on the library whose WebSocket connections stay open. Everything else is the library's default, so
// messages come back as text.

#include "base/text.h"
#include "http/http_connection.h"
#include "net/server.h"

namespace {

struct echo : http_connection {
  void on_upgrade() override {}
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 1;
  server<echo> http(base::parse_int(argv[1]));
  http.run();
  return 0;
}
