/* redirect_server: a server<T> that redirects all its clients to HTTPS. It always creates a redirector; T
 * only names the server that it replaces. It services upstream connections like any other server. */
#pragma once

#include "net/server.h"

/* Hands over a new `redirector`; null when there is no memory. Defined in proxy/redirector.cpp, together with
 * that class, because this layer cannot include it. */
connection* new_redirector();

template <class T>
struct redirect_server : server<T> {
  using server<T>::server;

  connection* create_connection(int) override { return new_redirector(); }
};
