/* openssl: the entry points of OpenSSL's libssl, found at run time.
 *
 * The pointers are filled before main() and never change. A call through a pointer whose entry point is
 * missing throws the loader's error text as a std::string, which https::run catches. So the program runs
 * without the library as long as it does not serve TLS. Contexts, sessions and methods are opaque: OpenSSL's
 * own types for them (SSL_CTX*, SSL*, const SSL_METHOD*) are written as void*. See OpenSSL's manual for each
 * function. */
#pragma once

#include <cstdint>

#include "tls/import.h"

namespace openssl {

extern import _import;

/* Called in place of a missing entry point. */
[[noreturn]] void throw_import_error();

constexpr int filetype_pem = 1;           // SSL_FILETYPE_PEM
constexpr int ctrl_mode = 33;             // SSL_CTRL_MODE
constexpr long enable_partial_write = 1;  // SSL_MODE_ENABLE_PARTIAL_WRITE; see main/https.h

extern unsigned long (*OpenSSL_version_num)();  // missing before 1.1: if the call throws, it is the older API
extern void (*SSL_load_error_strings)();        // older API
extern int (*SSL_library_init)();               // older API
extern int (*OPENSSL_init_ssl)(uint64_t options, const void* settings);  // newer API
extern void* (*SSL_CTX_new)(const void* method);
extern const void* (*SSLv23_server_method)();  // older API
extern const void* (*TLS_server_method)();     // newer API
extern void (*SSL_CTX_free)(void* ctx);
extern int (*SSL_CTX_use_PrivateKey_file)(void* ctx, const char* path, int type);
extern int (*SSL_CTX_use_certificate_file)(void* ctx, const char* path, int type);
extern void* (*SSL_new)(void* ctx);
extern void (*SSL_free)(void* ssl);
extern int (*SSL_set_fd)(void* ssl, int sock);
extern int (*SSL_accept)(void* ssl);
extern int (*SSL_shutdown)(void* ssl);
extern int (*SSL_read)(void* ssl, void* buf, int len);
extern int (*SSL_write)(void* ssl, const void* buf, int len);
extern long (*SSL_CTX_ctrl)(void* ctx, int command, long number, void* pointer);

/* Loads the first certificate in the file and those that follow it, and replaces those loaded before. The
 * entry point is not one of the pointers above: a library without it works, too, and no error text mentions
 * it. Returns false when the library lacks it or cannot load the file; the certificates loaded before may
 * still be there then. */
bool use_certificate_chain_file(void* ctx, const char* path);

}  // namespace openssl
