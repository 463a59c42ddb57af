#include "tests/soak/tls_client.h"

#include <dlfcn.h>

namespace {

// From the manual pages of OpenSSL 3.
constexpr int error_want_read = 2, error_want_write = 3, error_zero_return = 6;
constexpr uint64_t ignore_unexpected_eof = 1 << 7;    // SSL_CTX_set_options: mivo sends no close notification
constexpr long partial_writes_from_anywhere = 1 | 2;  // SSL_CTX_ctrl, mode
constexpr int set_mode = 33;

struct {
  void* (*TLS_client_method)();
  void* (*SSL_CTX_new)(void*);
  uint64_t (*SSL_CTX_set_options)(void*, uint64_t);
  long (*SSL_CTX_ctrl)(void*, int, long, void*);
  void* (*SSL_new)(void*);
  int (*SSL_set_fd)(void*, int);
  void (*SSL_set_connect_state)(void*);
  int (*SSL_write)(void*, const void*, int);
  int (*SSL_read)(void*, void*, int);
  int (*SSL_get_error)(const void*, int);
  void (*SSL_free)(void*);
  void (*ERR_clear_error)();
} ssl;

void* context = nullptr;

template <class F>
bool find(void* library, const char* name, F& function) {
  function = reinterpret_cast<F>(dlsym(library, name));
  return function != nullptr;
}

int64_t result(void* session, int n) {
  if (n > 0) return n;
  switch (ssl.SSL_get_error(session, n)) {
    case error_want_read:
      return tls_client::wants_input;
    case error_want_write:
      return tls_client::wants_output;
    case error_zero_return:
      return 0;
    default:
      return tls_client::broken;
  }
}

}  // namespace

bool tls_client::open_library() {
  void* library = dlopen("libssl.so.3", RTLD_NOW);
  const bool is_complete =
      library && find(library, "TLS_client_method", ssl.TLS_client_method) &&
      find(library, "SSL_CTX_new", ssl.SSL_CTX_new) &&
      find(library, "SSL_CTX_set_options", ssl.SSL_CTX_set_options) &&
      find(library, "SSL_CTX_ctrl", ssl.SSL_CTX_ctrl) && find(library, "SSL_new", ssl.SSL_new) &&
      find(library, "SSL_set_fd", ssl.SSL_set_fd) &&
      find(library, "SSL_set_connect_state", ssl.SSL_set_connect_state) &&
      find(library, "SSL_write", ssl.SSL_write) && find(library, "SSL_read", ssl.SSL_read) &&
      find(library, "SSL_get_error", ssl.SSL_get_error) && find(library, "SSL_free", ssl.SSL_free) &&
      find(library, "ERR_clear_error", ssl.ERR_clear_error);
  if (!is_complete) return false;
  context = ssl.SSL_CTX_new(ssl.TLS_client_method());
  if (!context) return false;
  ssl.SSL_CTX_set_options(context, ignore_unexpected_eof);
  ssl.SSL_CTX_ctrl(context, set_mode, partial_writes_from_anywhere, nullptr);
  return true;
}

void* tls_client::new_session(int sock) {
  void* session = ssl.SSL_new(context);
  if (!session) return nullptr;
  ssl.SSL_set_fd(session, sock);
  ssl.SSL_set_connect_state(session);
  return session;
}

void tls_client::free_session(void* session) {
  ssl.SSL_free(session);
}

int64_t tls_client::write(void* session, const char* data, size_t len) {
  ssl.ERR_clear_error();
  return result(session, ssl.SSL_write(session, data, static_cast<int>(len)));
}

int64_t tls_client::read(void* session, char* data, size_t len) {
  ssl.ERR_clear_error();
  return result(session, ssl.SSL_read(session, data, static_cast<int>(len)));
}
