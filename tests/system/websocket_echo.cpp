// A server on the library whose WebSocket connections stay open; all else is as the library has it, so that
// messages come back as text.

#include <cstdlib>

#include "http/http_connection.h"
#include "net/server.h"

namespace {

struct echo : http_connection {
  void on_upgrade() override {}
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 1;
  server<echo> http(static_cast<int>(strtol(argv[1], nullptr, 10)));
  http.run();
  return 0;
}
