// The table of entry points as it was filled before main(), compared with the library of this machine.

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tls/openssl.h"

namespace {

const std::vector<const char*> names_in_order = {
    "OpenSSL_version_num",
    "SSL_load_error_strings",
    "SSL_library_init",
    "OPENSSL_init_ssl",
    "SSL_CTX_new",
    "SSLv23_server_method",
    "SSLv23_client_method",
    "TLS_server_method",
    "TLS_client_method",
    "SSL_CTX_free",
    "SSL_CTX_use_PrivateKey_file",
    "SSL_CTX_use_certificate_file",
    "SSL_new",
    "SSL_free",
    "SSL_set_fd",
    "SSL_accept",
    "SSL_connect",
    "SSL_shutdown",
    "SSL_read",
    "SSL_write",
    "SSL_set_verify",
    "SSL_CTX_ctrl",
    "SSL_get_error",
    "SSL_ctrl",
    "SSL_get_peer_certificate",
    "SSL_get1_peer_certificate",
    "BIO_s_mem",
    "BIO_new",
    "PEM_write_bio_X509",
    "BIO_ctrl",
    "BIO_free",
    "X509_free",
};

void* in_library(const char* name) {
  return dlsym(openssl::_import.handle, name);
}

/* Sets the loader's error text for the length of a test. */
struct other_error_text {
  std::string saved = openssl::_import.error;

  explicit other_error_text(const std::string& text) { openssl::_import.error = text; }
  other_error_text(const other_error_text&) = delete;
  other_error_text& operator=(const other_error_text&) = delete;
  ~other_error_text() { openssl::_import.error = saved; }
};

std::string thrown_by_the_fallback() {
  try {
    openssl::throw_import_error();
  } catch (const std::string& text) {
    return text;
  }
}

}  // namespace

TEST(openssl_table, library_is_open_before_main) {
  EXPECT_EQ(openssl::_import.handle != nullptr,
            dlopen(_import_probe("libssl.so").c_str(), RTLD_LAZY) != nullptr);
}

TEST(openssl_table, error_lists_every_missing_name_in_the_order_of_the_table) {
  std::string expected =
      openssl::_import.handle ? "Error! Missing export(s) in libssl.so:" : "Unable to load libssl.so";
  ASSERT_EQ(names_in_order.size(), 32U);
  for (const char* name : names_in_order) {
    if (!in_library(name)) expected += std::string("\n") + name;
  }
  EXPECT_EQ(openssl::_import.error, expected);
}

TEST(openssl_table, each_pointer_holds_the_entry_point_of_its_name_or_the_one_that_throws) {
#define ENTRY(name) \
  { #name, reinterpret_cast < void*>(openssl::name) }
  const struct {
    const char* name;
    void* pointer;
  } entries[] = {
      ENTRY(OpenSSL_version_num),
      ENTRY(SSL_load_error_strings),
      ENTRY(SSL_library_init),
      ENTRY(OPENSSL_init_ssl),
      ENTRY(SSL_CTX_new),
      ENTRY(SSLv23_server_method),
      ENTRY(TLS_server_method),
      ENTRY(SSL_CTX_free),
      ENTRY(SSL_CTX_use_PrivateKey_file),
      ENTRY(SSL_CTX_use_certificate_file),
      ENTRY(SSL_new),
      ENTRY(SSL_free),
      ENTRY(SSL_set_fd),
      ENTRY(SSL_accept),
      ENTRY(SSL_shutdown),
      ENTRY(SSL_read),
      ENTRY(SSL_write),
      ENTRY(SSL_CTX_ctrl),
  };
#undef ENTRY
  for (const auto& entry : entries) {
    void* found = in_library(entry.name);
    EXPECT_EQ(entry.pointer, found ? found : reinterpret_cast<void*>(&openssl::throw_import_error))
        << entry.name;
  }
}

TEST(openssl_table, missing_entry_point_throws_the_whole_error_text_as_a_string) {
  if (in_library("SSL_library_init")) GTEST_SKIP() << "this library has the older API, too";
  try {
    openssl::SSL_library_init();
    ADD_FAILURE() << "nothing was thrown";
  } catch (const std::string& text) {
    EXPECT_EQ(text, openssl::_import.error);
  }
}

TEST(openssl_table, fallback_throws_the_text_of_the_moment) {
  other_error_text first("first");
  EXPECT_EQ(thrown_by_the_fallback(), "first");
  openssl::_import.error += "\nsecond";
  EXPECT_EQ(thrown_by_the_fallback(), "first\nsecond");
}

TEST(openssl_table, what_is_thrown_is_a_copy) {
  other_error_text text("the text");
  try {
    openssl::throw_import_error();
  } catch (std::string& thrown) {
    thrown = "changed";
  }
  EXPECT_EQ(openssl::_import.error, "the text");
}
