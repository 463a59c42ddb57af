/* redirect_server: a server<T> whose clients are all sent to HTTPS. What it makes is always a redirector; T
 * only names the server that it stands in for. It services upstream connections like any other server. */
#pragma once

#include "net/server.h"

/* A new `redirector`, handed over; null when there is no memory. Defined where that class is, in
 * proxy/redirector.cpp: the layer below cannot include it. */
connection* new_redirector();

template <class T>
struct redirect_server : server<T> {
  using server<T>::server;

  connection* create_connection(int) override { return new_redirector(); }
};
