/* tls_context: what a TLS server adds to a plain one: the context with its key and certificate, and a session
 * for each connection.
 *
 * Owns the context, which main/https.h creates. A connection's field `ssl` holds its session from
 * open_session() to close_session(). The handshake is finished inside read_session() and write_session(), so
 * its state is not kept here. The server goes by errno; nobody looks at OpenSSL's error codes.
 *
 * All functions except the destructor may throw the std::string of a missing entry point; https::run catches
 * it. */
#pragma once

#include <string>

#include "net/connection.h"

struct tls_context {
  static constexpr double check_interval = 60.0;  // seconds between looks at the certificate file

  void* ctx = nullptr;      // the SSL_CTX
  bool is_new_api = false;  // OpenSSL 1.1 or later; only main/https.h uses it
  std::string key_file;
  std::string crt_file;
  double crt_mtime = 0;    // of the certificate that is loaded, in seconds since the epoch; 0: none yet
  double last_check = 0;   // when the file was looked at last
  bool has_chain = false;  // intermediate certificates are loaded, or may be

  tls_context(const std::string& key, const std::string& crt) : key_file(key), crt_file(crt) {}
  tls_context(const tls_context&) = delete;
  tls_context& operator=(const tls_context&) = delete;

  /* Frees the context. The sessions may outlive it. */
  ~tls_context();

  /* Called at the start and in idle turns, see on_idle() in net/server.h. Loads the certificate into the
   * context, which must exist, if the file is newer than the loaded certificate. Looks at the file once a
   * minute at most. A file counts as loaded even if the library rejects it or throws. */
  void load_certificate_maybe();

  /* Begins the handshake on the connection's socket. False when there is no context, or no session. */
  bool open_session(connection* conn);

  /* Frees the session, if there is one. The socket is closed already, so the shutdown reaches nobody; it only
   * puts the session in order. */
  static void close_session(connection* conn);

  /* The transport hooks of a server; see abstract_server. SSL_read() and SSL_write() leave errno as their
   * last system call has left it. On a dead session, for example after a fatal TLS error, they make no system
   * call and do not change errno; rule 2 in net/server.h then ends the connection. SSL_write() also gets
   * lengths of 0 and below. */
  static int read_session(connection* conn, char* buf, int len);
  static int write_session(connection* conn, char* buf, int len);

 private:
  void load_chain_maybe();
};
