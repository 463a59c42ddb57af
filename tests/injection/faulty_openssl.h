/* faulty_openssl: lets the calls of a TLS stage's library fail. Each fault has the name of its entry point.
 *
 * A call that fails does nothing and returns the fault's result, or null. If the result is is_missing, it
 * does what a missing entry point does. */
#pragma once

#include <type_traits>

#include "tests/injection/fault_run.h"
#include "tls/openssl.h"

template <auto& Entry, class F = std::remove_reference_t<decltype(Entry)>>
struct faulty_entry;

template <auto& Entry, class Result, class... Arguments>
struct faulty_entry<Entry, Result (*)(Arguments...)> {
  inline static Result (*next)(Arguments...) = nullptr;
  inline static const char* name = nullptr;

  static void install(const char* its_name) {
    name = its_name;
    next = Entry;
    Entry = &call;
  }

  static Result call(Arguments... arguments) {
    int result = 0;
    if (!faults::fails(name, result)) return next(arguments...);
    if (result == is_missing) openssl::throw_import_error();
    if constexpr (std::is_pointer_v<Result>)
      return nullptr;
    else
      return static_cast<Result>(result);
  }
};

/* A TLS stage whose library can fail. Its fake_openssl restores the table at the end. */
class faulty_tls_stage : public tls_stage {
 public:
  faulty_tls_stage() {
    using namespace openssl;
    faulty_entry<OpenSSL_version_num>::install("OpenSSL_version_num");
    faulty_entry<OPENSSL_init_ssl>::install("OPENSSL_init_ssl");
    faulty_entry<TLS_server_method>::install("TLS_server_method");
    faulty_entry<SSL_CTX_new>::install("SSL_CTX_new");
    faulty_entry<SSL_CTX_free>::install("SSL_CTX_free");
    faulty_entry<SSL_CTX_use_PrivateKey_file>::install("SSL_CTX_use_PrivateKey_file");
    faulty_entry<SSL_CTX_use_certificate_file>::install("SSL_CTX_use_certificate_file");
    faulty_entry<SSL_CTX_ctrl>::install("SSL_CTX_ctrl");
    faulty_entry<SSL_new>::install("SSL_new");
    faulty_entry<SSL_set_fd>::install("SSL_set_fd");
    faulty_entry<SSL_accept>::install("SSL_accept");
    faulty_entry<SSL_read>::install("SSL_read");
    faulty_entry<SSL_write>::install("SSL_write");
    faulty_entry<SSL_shutdown>::install("SSL_shutdown");
    faulty_entry<SSL_free>::install("SSL_free");
  }
};
