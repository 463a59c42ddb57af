/* reverse_proxy: routes each request by its Host header to a port of this machine.
 *
 * This is the connection class of the program. The host map decides: with a port number the request is
 * forwarded to that port of "localhost", with -1 it is answered with the echo page, and for a host that is
 * not in the map it is answered with a 404. */
#pragma once

#include "base/hashmap.h"
#include "proxy/http_proxy.h"

struct reverse_proxy : http_proxy {
  static constexpr int echo_port = -1;  // in the host map: answer with the echo page

  void on_headers() override;

  /* Maps a Host header value, byte for byte, to a local port; -1 means the echo page. A host with port 0
   * counts as absent. All other numbers are tried as they are: the resolver refuses negative ones and takes
   * large ones modulo 65536. Filled before the servers start. */
  static base::hashmap<int>& hosts();

 private:
  void answer_echo();
  void relay_to(int local_port);
  void forward();
};
