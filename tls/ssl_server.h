/* ssl_server: a server whose connections speak TLS through OpenSSL.
 *
 * Only the transport differs; see tls_context, which does the work. When the server is destroyed, the context
 * is freed first. Then the base ends the connections without this on_remove(), so their sessions are not
 * freed. */
#pragma once

#include <string>

#include "net/server.h"
#include "tls/tls_context.h"

template <class T>
struct ssl_server : server<T>, tls_context {
  ssl_server(int listen_port, const std::string& key, const std::string& crt)
      : server<T>(listen_port), tls_context(key, crt) {}

  void on_idle() override {
    if (ctx) load_certificate_maybe();
  }
  bool on_accept(connection* conn) override { return open_session(conn); }
  void on_remove(connection* conn) override { close_session(conn); }
  int recv(connection* conn, char* buf, int len) override { return read_session(conn, buf, len); }
  int send(connection* conn, char* buf, int len) override { return write_session(conn, buf, len); }
};
