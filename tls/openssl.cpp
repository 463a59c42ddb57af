#include "tls/openssl.h"

#include <dlfcn.h>

namespace openssl {

import _import("libssl.so");

void throw_import_error() {
  throw std::string(_import.error);
}

unsigned long (*OpenSSL_version_num)();
void (*SSL_load_error_strings)();
int (*SSL_library_init)();
int (*OPENSSL_init_ssl)(uint64_t, const void*);
void* (*SSL_CTX_new)(const void*);
const void* (*SSLv23_server_method)();
const void* (*TLS_server_method)();
void (*SSL_CTX_free)(void*);
int (*SSL_CTX_use_PrivateKey_file)(void*, const char*, int);
int (*SSL_CTX_use_certificate_file)(void*, const char*, int);
void* (*SSL_new)(void*);
void (*SSL_free)(void*);
int (*SSL_set_fd)(void*, int);
int (*SSL_accept)(void*);
int (*SSL_shutdown)(void*);
int (*SSL_read)(void*, void*, int);
int (*SSL_write)(void*, const void*, int);
long (*SSL_CTX_ctrl)(void*, int, long, void*);

namespace {

void* find(const char* name) {
  return _import.proc(name, reinterpret_cast<void*>(&throw_import_error));
}

template <class F>
void load(F*& pointer, const char* name) {
  pointer = reinterpret_cast<F*>(find(name));
}

// The pointer and the symbol have the same name. The name is written only once, so the two cannot differ.
#define LOAD(name) load(name, #name)

// All names are looked up in this order, so that the error text lists every missing one. A server does not
// call the functions whose addresses are not stored.
bool load_all() {
  LOAD(OpenSSL_version_num);
  LOAD(SSL_load_error_strings);
  LOAD(SSL_library_init);
  LOAD(OPENSSL_init_ssl);
  LOAD(SSL_CTX_new);
  LOAD(SSLv23_server_method);
  find("SSLv23_client_method");
  LOAD(TLS_server_method);
  find("TLS_client_method");
  LOAD(SSL_CTX_free);
  LOAD(SSL_CTX_use_PrivateKey_file);
  LOAD(SSL_CTX_use_certificate_file);
  LOAD(SSL_new);
  LOAD(SSL_free);
  LOAD(SSL_set_fd);
  LOAD(SSL_accept);
  find("SSL_connect");
  LOAD(SSL_shutdown);
  LOAD(SSL_read);
  LOAD(SSL_write);
  find("SSL_set_verify");
  LOAD(SSL_CTX_ctrl);
  for (const char* name :
       {"SSL_get_error", "SSL_ctrl", "SSL_get_peer_certificate", "SSL_get1_peer_certificate", "BIO_s_mem",
        "BIO_new", "PEM_write_bio_X509", "BIO_ctrl", "BIO_free", "X509_free"}) {
    find(name);
  }
  return true;
}

#undef LOAD

const bool is_loaded = load_all();  // not read: it makes the call happen before main()

}  // namespace

bool use_certificate_chain_file(void* ctx, const char* path) {
  using function = int (*)(void*, const char*);
  auto use = reinterpret_cast<function>(dlsym(_import.handle, "SSL_CTX_use_certificate_chain_file"));
  return use && use(ctx, path) == 1;
}

}  // namespace openssl
