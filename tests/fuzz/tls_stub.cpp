#include "tests/fuzz/tls_stub.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <string>

#include "tests/fuzz/fuzz.h"
#include "tls/openssl.h"

namespace {

constexpr int longest_record = 16384;

enum states { handshaking, established, dead };

struct session {
  int sock = -1;
  states state = handshaking;
  int stalls = 0;         // calls that will still ask to wait
  std::string decrypted;  // read from the socket and not asked for yet
};

session& of(void* ssl) {
  return *static_cast<session*>(ssl);
}

// Reads what the socket has, up to a record, and acts on the signals in it. Returns what recv() did.
ssize_t fill(session& s) {
  char record[longest_record];
  const ssize_t n = recv(s.sock, record, sizeof(record), 0);
  for (ssize_t i = 0; i < n; i++) {
    if (s.state == handshaking)
      s.state = established;
    else if (record[i] == tls_stub::alert)
      s.state = dead;
    else if (record[i] == tls_stub::stall)
      s.stalls = 3;
    else if (s.state == established)
      s.decrypted += record[i];
  }
  return n;
}

int ask_to_wait(session& s) {
  s.stalls--;
  errno = EAGAIN;
  return -1;
}

int read(void* ssl, void* buf, int len) {
  session& s = of(ssl);
  if (s.decrypted.empty()) {
    if (s.state == dead) return -1;
    if (s.stalls > 0) return ask_to_wait(s);
    const ssize_t n = fill(s);
    if (n <= 0) return static_cast<int>(n);
    if (s.decrypted.empty()) {  // there were only signals; more bytes may wait, but the system was not asked
      errno = s.state == dead ? 0 : EAGAIN;
      return -1;
    }
  }
  const size_t n = s.decrypted.copy(static_cast<char*>(buf), static_cast<size_t>(len));
  s.decrypted.erase(0, n);
  return static_cast<int>(n);
}

int write(void* ssl, const void* buf, int len) {
  session& s = of(ssl);
  if (len <= 0 || s.state == dead) return -1;
  if (s.state == handshaking || s.stalls > 0) return ask_to_wait(s);
  return static_cast<int>(send(s.sock, buf, static_cast<size_t>(std::min(len, longest_record)), 0));
}

}  // namespace

void* tls_stub::context() {
  static char place;
  return &place;
}

void tls_stub::install() {
  openssl::SSL_CTX_free = [](void* ctx) {
    fuzz::expect(ctx == context(), "only the context is freed as one");
  };
  openssl::SSL_new = [](void*) -> void* { return new session; };  // deleted by SSL_free
  openssl::SSL_free = [](void* ssl) { delete &of(ssl); };
  openssl::SSL_set_fd = [](void* ssl, int sock) {
    of(ssl).sock = sock;
    return 1;
  };
  openssl::SSL_accept = [](void*) { return -1; };
  openssl::SSL_shutdown = [](void*) { return 0; };
  openssl::SSL_read = &read;
  openssl::SSL_write = &write;
}
