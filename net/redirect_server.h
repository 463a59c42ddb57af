/* redirect_server: a server<T> whose clients are all sent to HTTPS. It services upstream connections like
 * any other server. */
#pragma once

#include "net/server.h"

/* A new `redirector`, handed over; null when there is no memory. Defined where that class is, a layer up. */
connection* new_redirector();

template <class T>
struct redirect_server : server<T> {
  using server<T>::server;

  connection* create_connection(int) override { return new_redirector(); }
};
