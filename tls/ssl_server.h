/* ssl_server: a server whose connections speak TLS through OpenSSL.
 *
 * Only the transport differs: each accepted connection gets a session, in its field `ssl`, from on_accept to
 * on_remove, and its bytes pass through SSL_read and SSL_write. The handshake is finished inside these, so
 * no state of it is kept. No OpenSSL error code is looked at. The certificate is loaded again when its file
 * has changed; the key never is. A session that cannot go on and leaves its socket ready, on which the loop
 * would spin, is made to time out: see read_unless_dead() and most_refused_writes.
 *
 * Owns the context, which the driver creates. The hooks throw the std::string of a missing entry point;
 * https::run catches it. */
#pragma once

#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <string>

#include "net/server.h"
#include "tls/certificate_file.h"
#include "tls/openssl.h"

template <class T>
struct ssl_server : server<T> {
  static constexpr double check_interval = 60.0;  // seconds between looks at the certificate file

  // So many writes in a row refused on a writable socket tell that the session is dead. A live one holds back
  // a record at most, and takes a few turns at the worst to get it into the socket.
  static constexpr int most_refused_writes = 64;

  void* ctx = nullptr;      // the SSL_CTX
  bool is_new_api = false;  // OpenSSL 1.1 or later; noted by the driver, read by nobody here
  std::string key_file;
  std::string crt_file;
  double crt_mtime = 0;    // of the certificate that is loaded, in seconds since the epoch; 0: none yet
  double last_check = 0;   // when the file was looked at last
  bool has_chain = false;  // intermediate certificates are loaded, too

  ssl_server(int listen_port, const std::string& key, const std::string& crt)
      : server<T>(listen_port), key_file(key), crt_file(crt) {}

  /* Frees the context; then the base ends the connections, without a word of TLS to anyone. */
  ~ssl_server() override {
    if (!ctx) return;
    try {
      openssl::SSL_CTX_free(ctx);
    } catch (const std::string& text) {
      printf("%s\n", text.c_str());
    }
  }

  void on_idle() override {
    if (ctx) load_certificate_maybe();
  }

  /* False, refusing the client, when there is no context or no session to be had. */
  bool on_accept(connection* conn) override {
    conn->ssl = ctx ? openssl::SSL_new(ctx) : nullptr;
    if (!conn->ssl) return false;
    openssl::SSL_set_fd(conn->ssl, conn->sock);
    openssl::SSL_accept(conn->ssl);
    return true;
  }

  /* The socket is closed already, so the shutdown reaches nobody; it only puts the session in order. */
  void on_remove(connection* conn) override {
    if (!conn->ssl) return;
    openssl::SSL_shutdown(conn->ssl);
    openssl::SSL_free(conn->ssl);
    conn->ssl = nullptr;
  }

  int recv(connection* conn, char* buf, int len) override {
    int n = openssl::SSL_read(conn->ssl, buf, len);
    // Behind bytes of the same pass, a negative result only means that there are no more.
    if (n < 0 && conn != this->already_read) n = read_unless_dead(conn, n, buf, len);
    if (n > 0) this->already_read = conn;
    return n;
  }

  int send(connection* conn, char* buf, int len) override {
    int n = openssl::SSL_write(conn->ssl, buf, len);
    if (n > 0) conn->refused_writes = 0;
    if (n < 0 && ++conn->refused_writes >= most_refused_writes) end_soon(conn);
    return n;
  }

  /* Loads the certificate into the context, which must be there, if its file is newer than what is loaded.
   * Looks at it once a minute at most. A file counts as loaded even if the library rejects it or throws. */
  void load_certificate_maybe() {
    const auto now = static_cast<double>(time(nullptr));
    if (now - last_check <= check_interval) return;
    last_check = now;
    const double file_time = certificate_file_time(crt_file);
    if (file_time <= crt_mtime) return;
    if (crt_mtime > 0) printf("Reloading certificate...\n");
    crt_mtime = file_time;
    openssl::SSL_CTX_use_certificate_file(ctx, crt_file.c_str(), openssl::filetype_pem);
    load_chain_maybe();
  }

 private:
  // SSL_CTX_use_certificate_file takes the first certificate of the file only. Clients other than browsers
  // need the intermediate ones behind it, too; and those of an earlier file must not outlive it.
  void load_chain_maybe() {
    const bool is_chain = count_certificates(crt_file) > 1;
    if (is_chain || has_chain) openssl::use_certificate_chain_file(ctx, crt_file.c_str());
    has_chain = is_chain;
  }

  // After a negative SSL_read, `n`, on a socket that select() found readable: a live session has taken what
  // was there and waits for more. A dead one leaves the socket readable for ever, and the loop would spin on
  // it. Such a connection is made to time out in the next turn. Returns what SSL_read gave last.
  int read_unless_dead(connection* conn, int n, char* buf, int len) {
    char byte;
    ssize_t peeked = ::recv(conn->sock, &byte, 1, MSG_PEEK);
    if (peeked < 0 && (errno == EAGAIN || errno == EINTR)) return n;
    if (peeked > 0) {
      // Bytes that came just now are no proof; bytes that a second attempt leaves where they are, are.
      int before = 0, after = 0;
      ioctl(conn->sock, FIONREAD, &before);
      n = openssl::SSL_read(conn->ssl, buf, len);
      ioctl(conn->sock, FIONREAD, &after);
      if (n >= 0 || after < before) return n;
    }
    end_soon(conn);
    return n;
  }

  // Has the framework's time-out rule end the connection in the next turn, even if the clock steps back by a
  // second until then.
  static void end_soon(connection* conn) {
    conn->timeout = 0;
    conn->last_active = static_cast<int32_t>(time(nullptr) - 2);
  }
};
