/* redirect_server: takes the place of a server<T> and redirects all its clients to HTTPS. It creates a
 * redirector for each client, never a T. It also services the upstream connections of the
 * TLS server's clients (main/https.h). */
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
