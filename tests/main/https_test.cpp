// The driver of the HTTPS mode, over a faked OpenSSL.

#include "main/https.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <functional>
#include <string>
#include <typeinfo>
#include <vector>

#include "proxy/reverse_proxy.h"
#include "tests/net/child.h"
#include "tests/support/client.h"
#include "tests/support/console.h"
#include "tests/support/faults.h"
#include "tests/tls/fake_openssl.h"
#include "tests/tls/temp_folder.h"

namespace {

using calls = std::vector<std::string>;

/* The ports are free, and there is one adapter. */
struct https_run : testing::Test {
  https_run() { faults::adapters() = {"10.1.2.3"}; }
  ~https_run() override {
    faults::clear();
    signal(SIGINT, SIG_DFL);
    http_proxy::g_server() = nullptr;
    redirector::ssl_port() = 443;
  }

  bool run(int port) { return https::run<reverse_proxy>(ssl_port, key.c_str(), crt.c_str(), port); }

  /* A run that ends because the n-th server finds its port taken. */
  bool run_until_start_fails(int port, int n = 1) {
    faults::of()["bind"] = {n - 1, 1, EADDRINUSE, -1};
    return run(port);
  }

  /* A run in a copy of the process. `handler` is called every 5 ms, and ends the run by raising SIGINT. */
  void run_in_child_with(int port, void (*handler)(int)) {
    EXPECT_TRUE(run_in_child([=] {
      signal(SIGINT, SIG_IGN);  // until the run has its own handler
      interrupt_regularly(handler);
      EXPECT_TRUE(run(port));
    }));
  }

  /* All calls of a run without a client: those of the initialisation, and those after them. */
  calls calls_behind(calls initialisation) const {
    for (const std::string& call :
         {"SSL_CTX_use_PrivateKey_file(ctx, " + key + ", 1)",
          "SSL_CTX_use_certificate_file(ctx, " + crt + ", 1)", std::string("SSL_CTX_ctrl(ctx, 33, 1, null)"),
          std::string("SSL_CTX_free(ctx)")})
      initialisation.push_back(call);
    return initialisation;
  }

  static std::string binding(int port) {
    return "Binding to port " + std::to_string(port) + " on all adapters:\n10.1.2.3\n";
  }

  static std::string bind_failure() {
    return std::string("bind() failed: -1 ") + gai_strerror(-1) +
           "\nCheck that the port isn't already taken.\n"
           "This can be done with 'netstat -an' on windows/mac/linux.\nFailed to start server(s).\n";
  }

  std::string redirecting() const {
    return "Redirecting http (" + std::to_string(http_port) + ") to https (" + std::to_string(ssl_port) +
           ")\n";
  }

  const int http_port = free_port();
  const int ssl_port = free_port();
  temp_folder folder;
  const std::string key = folder.path() + "/key.pem";
  const std::string crt = folder.write("crt.pem", "a certificate");
  console screen;
  fake_openssl tls;
};

const std::string https_only = "Using https only (no http)\n";

const calls new_initialisation = {"OpenSSL_version_num()", "OPENSSL_init_ssl(0, null)", "TLS_server_method()",
                                  "SSL_CTX_new(new method)"};
const calls old_initialisation = {"SSL_load_error_strings()", "SSL_library_init()", "SSLv23_server_method()",
                                  "SSL_CTX_new(old method)"};

/* An entry point that the library lacks, and whether there is a context when it would be called. */
struct missing {
  const char* name;
  void (*remove)(fake_openssl& tls, const std::string& text);
  bool has_context;
};

struct missing_entry_point : https_run, testing::WithParamInterface<missing> {};

}  // namespace

TEST_F(https_run, newer_library_is_initialised_in_this_order) {
  EXPECT_TRUE(run_until_start_fails(0));
  EXPECT_EQ(tls.notes, calls_behind(new_initialisation));
}

TEST_F(https_run, older_library_is_initialised_silently_in_this_order) {
  tls.remove(openssl::OpenSSL_version_num);
  EXPECT_TRUE(run_until_start_fails(0));
  EXPECT_EQ(tls.notes, calls_behind(old_initialisation));
  EXPECT_EQ(screen.text(), https_only + binding(ssl_port) + bind_failure());
}

TEST_F(https_run, whatever_the_probe_throws_means_the_older_library) {
  tls.replace(openssl::OpenSSL_version_num, []() -> unsigned long { throw 1; });
  EXPECT_TRUE(run_until_start_fails(0));
  EXPECT_EQ(tls.notes[0], "SSL_load_error_strings()");
}

TEST_F(https_run, generation_of_the_library_is_noted_in_the_server) {
  ssl_server<reverse_proxy> newer(ssl_port, key, crt);
  https::create_context(newer);
  EXPECT_TRUE(newer.is_new_api);
  tls.remove(openssl::OpenSSL_version_num);
  ssl_server<reverse_proxy> older(ssl_port, key, crt);
  older.is_new_api = true;
  https::create_context(older);
  EXPECT_FALSE(older.is_new_api);
}

TEST_F(https_run, statuses_of_the_library_are_ignored) {
  tls.result = 0;
  EXPECT_TRUE(run_until_start_fails(0));
  EXPECT_EQ(tls.notes, calls_behind(new_initialisation));
}

TEST_F(https_run, missing_certificate_is_not_loaded_and_not_noticed) {
  std::filesystem::remove(crt);
  EXPECT_TRUE(run_until_start_fails(0));
  EXPECT_THAT(tls.notes, testing::Not(testing::Contains(testing::HasSubstr("use_certificate"))));
  EXPECT_EQ(screen.text(), https_only + binding(ssl_port) + bind_failure());
}

TEST_F(https_run, missing_context_is_not_passed_to_any_call) {
  tls.gives_context = false;
  EXPECT_TRUE(run_until_start_fails(0));
  EXPECT_EQ(tls.notes, new_initialisation);
}

TEST_P(missing_entry_point, prints_the_text_of_the_loader_and_nothing_is_served) {
  const std::string text = "Error! Missing export(s) in libssl.so:\nsome\nnames";
  GetParam().remove(tls, text);
  EXPECT_FALSE(run(http_port));
  EXPECT_EQ(screen.text(), text + "\n");
  EXPECT_EQ(tls.notes.back() == "SSL_CTX_free(ctx)", GetParam().has_context);
}

#define WITHOUT(entry_point, has_context)                                                              \
  missing {                                                                                            \
#entry_point, [](fake_openssl & tls,                                                               \
                     const std::string& text) { tls.remove(openssl::entry_point, text); }, has_context \
  }
INSTANTIATE_TEST_SUITE_P(https_run, missing_entry_point,
                         testing::Values(WITHOUT(OPENSSL_init_ssl, false), WITHOUT(TLS_server_method, false),
                                         WITHOUT(SSL_CTX_new, false),
                                         WITHOUT(SSL_CTX_use_PrivateKey_file, true),
                                         WITHOUT(SSL_CTX_use_certificate_file, true),
                                         WITHOUT(SSL_CTX_ctrl, true)),
                         [](const auto& test) { return test.param.name; });
#undef WITHOUT

TEST_F(https_run, library_that_is_missing_altogether_prints_the_text_of_the_loader) {
  tls.remove(openssl::OpenSSL_version_num);
  tls.remove(openssl::SSL_CTX_free);
  tls.remove(openssl::SSL_load_error_strings, "Unable to load libssl.so\nOpenSSL_version_num");
  EXPECT_FALSE(run(http_port));
  EXPECT_EQ(screen.text(), "Unable to load libssl.so\nOpenSSL_version_num\n");
}

TEST_F(https_run, text_of_the_loader_is_printed_after_everything_is_gone) {
  tls.replace(openssl::SSL_CTX_free, [](void*) { printf("context freed\n"); });
  tls.remove(openssl::SSL_CTX_ctrl, "text");
  EXPECT_FALSE(run(http_port));
  EXPECT_EQ(screen.text(), "context freed\ntext\n");
}

TEST_F(https_run, exceptions_of_other_types_are_not_caught) {
  tls.replace(openssl::SSL_CTX_new, [](const void*) -> void* { throw 1; });
  EXPECT_THROW(run(0), int);
}

TEST_F(https_run, redirect_server_starts_first) {
  EXPECT_TRUE(run_until_start_fails(http_port, 2));
  EXPECT_EQ(screen.text(), redirecting() + binding(http_port) + binding(ssl_port) + bind_failure());
  EXPECT_EQ(redirector::ssl_port(), ssl_port);
}

TEST_F(https_run, tls_server_is_not_started_after_a_redirect_server_that_fails) {
  EXPECT_TRUE(run_until_start_fails(http_port));
  EXPECT_EQ(screen.text(), redirecting() + binding(http_port) + bind_failure());
}

TEST_F(https_run, failed_start_closes_what_was_open) {
  EXPECT_TRUE(run_until_start_fails(http_port, 2));
  EXPECT_FALSE(client(http_port).ok());
  EXPECT_EQ(tls.notes.back(), "SSL_CTX_free(ctx)");
}

TEST_F(https_run, negative_http_port_is_a_port_too) {
  EXPECT_TRUE(run_until_start_fails(-1));
  EXPECT_EQ(screen.text(), "Redirecting http (-1) to https (" + std::to_string(ssl_port) + ")\n" +
                               binding(-1) + "getaddrinfo() failed: " + std::to_string(EAI_SERVICE) + " " +
                               gai_strerror(EAI_SERVICE) + "\nFailed to start server(s).\n");
}

TEST_F(https_run, lines_are_not_flushed) {
  for (int port : {0, http_port}) {
    screen.clear();
    EXPECT_TRUE(prints_without_flush([&] { run_until_start_fails(port); }));
    EXPECT_NE(screen.text(), "");
  }
}

TEST_F(https_run, without_an_http_port_nothing_but_tls_is_bound) {
  redirector::ssl_port() = 1234;
  EXPECT_TRUE(run_until_start_fails(0));
  EXPECT_EQ(screen.text(), https_only + binding(ssl_port) + bind_failure());
  EXPECT_EQ(redirector::ssl_port(), 1234);
}

TEST_F(https_run, sigint_ends_the_run_in_order) {
  run_in_child_with(http_port, [](int) { raise(SIGINT); });
  EXPECT_EQ(screen.text(), redirecting() + binding(http_port) + binding(ssl_port) + "Shutting down...\n");
}

TEST_F(https_run, second_server_ends_before_the_context_and_the_tls_server_after_it) {
  static int ports[2];
  ports[0] = http_port;
  ports[1] = ssl_port;
  tls.replace(openssl::SSL_CTX_free, [](void*) {
    for (int port : ports) printf("%s, ", client(port).ok() ? "open" : "closed");
    printf("context freed\n");
  });
  run_in_child_with(http_port, [](int) { raise(SIGINT); });
  EXPECT_THAT(screen.text(), testing::EndsWith("Shutting down...\nclosed, open, context freed\n"));
}

TEST_F(https_run, upstream_connections_belong_to_the_redirect_server) {
  run_in_child_with(http_port, [](int) {
    static bool is_seen = false;  // then nobody looks again: the server may be gone
    is_seen = is_seen || dynamic_cast<redirect_server<reverse_proxy>*>(http_proxy::g_server());
    if (is_seen) raise(SIGINT);
  });
}

TEST_F(https_run, upstream_connections_belong_to_a_plain_server_without_a_port) {
  run_in_child_with(0, [](int) {
    static bool is_seen = false;
    server_base* const holder = is_seen ? nullptr : http_proxy::g_server();
    is_seen = is_seen || (holder && typeid(*holder) == typeid(server<reverse_proxy>) && holder->port == 0);
    if (is_seen) raise(SIGINT);
  });
}
