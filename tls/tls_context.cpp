#include "tls/tls_context.h"

#include <cstdio>
#include <ctime>

#include "tls/certificate_file.h"
#include "tls/openssl.h"

void tls_context::load_certificate_maybe() {
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

// SSL_CTX_use_certificate_file loads only the first certificate of the file. Clients other than browsers also
// need the intermediate certificates after it. The intermediate certificates of an earlier file must not stay
// in the context. Only another call of use_certificate_chain_file() removes them, and only if it can load the
// file.
void tls_context::load_chain_maybe() {
  const bool is_chain = count_certificates(crt_file) > 1;
  if (!is_chain && !has_chain) return;
  const bool is_loaded = openssl::use_certificate_chain_file(ctx, crt_file.c_str());
  has_chain = is_chain || !is_loaded;
}

bool tls_context::open_session(connection* conn) {
  conn->ssl = ctx ? openssl::SSL_new(ctx) : nullptr;
  if (!conn->ssl) return false;
  openssl::SSL_set_fd(conn->ssl, conn->sock);
  openssl::SSL_accept(conn->ssl);
  return true;
}

int tls_context::read_session(connection* conn, char* buf, int len) {
  return openssl::SSL_read(conn->ssl, buf, len);
}

int tls_context::write_session(connection* conn, char* buf, int len) {
  return openssl::SSL_write(conn->ssl, buf, len);
}

void tls_context::close_session(connection* conn) {
  if (!conn->ssl) return;
  openssl::SSL_shutdown(conn->ssl);
  openssl::SSL_free(conn->ssl);
  conn->ssl = nullptr;
}

tls_context::~tls_context() {
  if (!ctx) return;
  try {
    openssl::SSL_CTX_free(ctx);
  } catch (const std::string& text) {
    printf("%s\n", text.c_str());
  }
}
