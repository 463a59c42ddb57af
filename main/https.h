/* The driver of the HTTPS mode: a TLS server and a plain server, in one loop. */
#pragma once

#include <cstdio>
#include <string>

#include "net/redirect_server.h"
#include "net/server.h"
#include "proxy/http_proxy.h"
#include "proxy/redirector.h"
#include "tls/openssl.h"
#include "tls/ssl_server.h"

namespace https {

/* Initialises the library, stores in `is_new_api` which generation of its API it has, and returns the method
 * for a server. Throws the loader's text when an entry point is missing. */
inline const void* init_library(bool& is_new_api) {
  try {
    openssl::OpenSSL_version_num();
    is_new_api = true;
  } catch (...) {
    is_new_api = false;
  }
  if (is_new_api) {
    openssl::OPENSSL_init_ssl(0, nullptr);
    return openssl::TLS_server_method();
  }
  openssl::SSL_load_error_strings();
  openssl::SSL_library_init();
  return openssl::SSLv23_server_method();
}

/* Creates the server's context and loads key and certificate into it. Does not notice files that OpenSSL
 * rejects: the handshakes of all clients then fail. Throws like init_library(). */
template <class T>
void create_context(ssl_server<T>& tls) {
  const void* method = init_library(tls.is_new_api);
  tls.ctx = openssl::SSL_CTX_new(method);
  if (!tls.ctx) return;  // OpenSSL would crash on a null context; every client is refused
  openssl::SSL_CTX_use_PrivateKey_file(tls.ctx, tls.key_file.c_str(), openssl::filetype_pem);
  tls.load_certificate_maybe();
  // Lets SSL_write write less than asked, as send() does and as the server's write loop expects.
  openssl::SSL_CTX_ctrl(tls.ctx, openssl::ctrl_mode, openssl::enable_partial_write, nullptr);
}

/* Drives the two servers, both borrowed, until SIGINT; in every turn the plain server comes first. The
 * upstream connections live in the plain server, because they are plain, too. g_server() dangles after the
 * plain server is gone. */
inline void serve(server_base& plain, abstract_server& tls) {
  http_proxy::g_server() = &plain;
  abstract_server* servers[] = {&plain, &tls, nullptr};
  abstract_server::run(servers);
}

/* Serves T connections over TLS on `ssl_port`. Redirects `http_port` to it, unless `http_port` is 0. Returns
 * true after SIGINT and also when a server cannot start. Returns false, after printing why, when the TLS
 * library lacks something. Before it returns it closes everything: first the plain server with the upstream
 * connections, then the context, then the TLS clients. */
template <class T>
bool run(int ssl_port, const char* key, const char* crt, int http_port) {
  try {
    ssl_server<T> tls(ssl_port, key, crt);
    create_context(tls);
    if (http_port != 0) {
      printf("Redirecting http (%d) to https (%d)\n", http_port, ssl_port);
      redirect_server<T> http(http_port);
      redirector::ssl_port() = ssl_port;
      serve(http, tls);
    } else {
      printf("Using https only (no http)\n");
      server<T> upstream_holder(0);
      serve(upstream_holder, tls);
    }
    return true;
  } catch (const std::string& text) {
    printf("%s\n", text.c_str());
    return false;
  }
}

}  // namespace https
