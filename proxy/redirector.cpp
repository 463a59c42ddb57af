#include "proxy/redirector.h"

#include <new>
#include <string>

#include "net/redirect_server.h"

namespace {

constexpr int32_t default_ssl_port = 443;  // a URL need not name it

}  // namespace

int32_t& redirector::ssl_port() {
  static int32_t port = default_ssl_port;
  return port;
}

void redirector::on_request() {
  std::string suffix = ssl_port() == default_ssl_port ? "" : ":" + std::to_string(ssl_port());
  const std::string host = get_header("host", head);
  redirect("https://" + host.substr(0, host.find(':')) + suffix + path, true);
  keep_alive = false;
}

connection* new_redirector() {
  return new (std::nothrow) redirector;
}
