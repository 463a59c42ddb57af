// A stand-in for OpenSSL's libssl. It sends plain text and logs every call, with its arguments, in the file
// that MIVO_STUB_LOG names. MIVO_STUB_NULL names the function that returns null. The test tells the linker
// which functions to export, so a library can lack some of them.

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

struct session {
  int number;
  int sock;
};

// All sessions stay reachable from here, even freed ones. The program does not free every session when it
// ends, and the leak checker must not report those.
session sessions[100];
int session_count = 0;

char context;
char new_method;
char old_method;

__attribute__((format(printf, 1, 2))) void note(const char* format, ...) {
  char line[4096];
  va_list arguments;
  va_start(arguments, format);
  int length = vsnprintf(line, sizeof(line) - 1, format, arguments);
  va_end(arguments);
  line[length] = '\n';
  int log = open(getenv("MIVO_STUB_LOG"), O_WRONLY | O_CREAT | O_APPEND, 0600);
  if (write(log, line, static_cast<size_t>(length) + 1) < 0) abort();
  close(log);
}

const char* name(const void* object) {
  if (!object) return "null";
  if (object == &context) return "ctx";
  if (object == &new_method) return "new method";
  if (object == &old_method) return "old method";
  return "unknown";
}

bool is_null(const char* function) {
  const char* chosen = getenv("MIVO_STUB_NULL");
  return chosen && strcmp(chosen, function) == 0;
}

// Logs the name by which the program opened this file; the name comes from the linker's cache.
__attribute__((constructor)) void note_loading() {
  Dl_info info;
  if (dladdr(&context, &info)) note("loaded %s", strrchr(info.dli_fname, '/') + 1);
}

}  // namespace

extern "C" {

unsigned long OpenSSL_version_num() {
  note("OpenSSL_version_num()");
  return 0x30000000;
}

int OPENSSL_init_ssl(uint64_t options, const void* settings) {
  note("OPENSSL_init_ssl(%d, %s)", static_cast<int>(options), name(settings));
  return 1;
}

const void* TLS_server_method() {
  note("TLS_server_method()");
  return &new_method;
}

void SSL_load_error_strings() {
  note("SSL_load_error_strings()");
}

int SSL_library_init() {
  note("SSL_library_init()");
  return 1;
}

const void* SSLv23_server_method() {
  note("SSLv23_server_method()");
  return &old_method;
}

void* SSL_CTX_new(const void* method) {
  note("SSL_CTX_new(%s)", name(method));
  return is_null("SSL_CTX_new") ? nullptr : &context;
}

void SSL_CTX_free(void* ctx) {
  note("SSL_CTX_free(%s)", name(ctx));
}

int SSL_CTX_use_PrivateKey_file(void* ctx, const char* path, int type) {
  note("SSL_CTX_use_PrivateKey_file(%s, %s, %d)", name(ctx), path, type);
  return 1;
}

int SSL_CTX_use_certificate_file(void* ctx, const char* path, int type) {
  note("SSL_CTX_use_certificate_file(%s, %s, %d)", name(ctx), path, type);
  return 1;
}

int SSL_CTX_use_certificate_chain_file(void* ctx, const char* path) {
  note("SSL_CTX_use_certificate_chain_file(%s, %s)", name(ctx), path);
  return 1;
}

long SSL_CTX_ctrl(void* ctx, int command, long number, void* pointer) {
  note("SSL_CTX_ctrl(%s, %d, %ld, %s)", name(ctx), command, number, name(pointer));
  return number;
}

void* SSL_new(void* ctx) {
  note("SSL_new(%s)", name(ctx));
  if (is_null("SSL_new") || session_count == 100) return nullptr;
  session* s = &sessions[session_count++];
  *s = {session_count, -1};
  return s;
}

int SSL_set_fd(void* ssl, int sock) {
  auto* s = static_cast<session*>(ssl);
  s->sock = sock;
  note("SSL_set_fd(s%d, %s)", s->number, sock >= 0 ? "a socket" : "none");
  return 1;
}

int SSL_accept(void* ssl) {
  note("SSL_accept(s%d)", static_cast<session*>(ssl)->number);
  return -1;
}

int SSL_read(void* ssl, void* buf, int len) {
  auto* s = static_cast<session*>(ssl);
  int n = static_cast<int>(recv(s->sock, buf, static_cast<size_t>(len), 0));
  note("SSL_read(s%d, %d) -> %d", s->number, len, n);
  return n;
}

int SSL_write(void* ssl, const void* buf, int len) {
  auto* s = static_cast<session*>(ssl);
  int n = static_cast<int>(send(s->sock, buf, static_cast<size_t>(len), 0));
  note("SSL_write(s%d, %d) -> %d", s->number, len, n);
  return n;
}

int SSL_shutdown(void* ssl) {
  note("SSL_shutdown(s%d)", static_cast<session*>(ssl)->number);
  return 0;
}

void SSL_free(void* ssl) {
  note("SSL_free(s%d)", static_cast<session*>(ssl)->number);
}

// The program must not call these.
#define UNUSED(function) \
  void function() {      \
    note(#function);     \
  }
UNUSED(SSLv23_client_method)
UNUSED(TLS_client_method)
UNUSED(SSL_connect)
UNUSED(SSL_set_verify)
UNUSED(SSL_get_error)
UNUSED(SSL_ctrl)
UNUSED(SSL_get_peer_certificate)
UNUSED(SSL_get1_peer_certificate)
UNUSED(BIO_s_mem)
UNUSED(BIO_new)
UNUSED(PEM_write_bio_X509)
UNUSED(BIO_ctrl)
UNUSED(BIO_free)
UNUSED(X509_free)

}  // extern "C"
