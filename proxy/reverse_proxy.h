/* reverse_proxy: routes each request by its Host header to a port of this machine.
 *
 * The connection class of the running system. The host map decides: a port number forwards the request to
 * "localhost" and that port, -1 answers it with the echo page, and a host that is not there gets a 404. */
#pragma once

#include "base/hashmap.h"
#include "proxy/http_proxy.h"

struct reverse_proxy : http_proxy {
  static constexpr int echo_port = -1;  // in the host map: answer with the echo page

  void on_headers() override;

  /* Host header value, byte for byte, to local port; -1 for the echo page. 0 is as good as absent. Other
   * numbers are tried as they are: the resolver refuses negative ones and takes large ones modulo 65536.
   * Filled before the servers start. */
  static base::hashmap<int>& hosts();

 private:
  void answer_echo();
  void relay_to(int local_port);
  void forward();
};
