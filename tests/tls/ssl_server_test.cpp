// The hooks of the TLS server, called one by one.

#include "tls/ssl_server.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <functional>
#include <iterator>

#include "tests/tls/ssl_server_fixture.h"

namespace {

struct tls_hooks : ssl_server_fixture {
  /* A connection that is in no list, accepted on one end of a socket pair. */
  tls_hooks() {
    socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends);
    lone.sock = ends[0];
  }
  ~tls_hooks() override {
    close(ends[0]);
    close(ends[1]);
  }

  void accept() {
    EXPECT_TRUE(srv->on_accept(&lone));
    tls.take_notes();
  }

  int ends[2] = {-1, -1};
  talker lone;
  char buf[64] = {};
};

}  // namespace

TEST_F(tls_hooks, new_server_has_its_paths_and_nothing_else) {
  ssl_server<talker> fresh(8443, "a key", "a crt");
  EXPECT_EQ(fresh.sock, -1);
  EXPECT_EQ(fresh.connections.count, 0);
  EXPECT_EQ(fresh.port, 8443);
  EXPECT_FALSE(fresh.localhost_only);
  EXPECT_EQ(fresh.last_report, 0);
  EXPECT_EQ(fresh.last_count, -1);
  EXPECT_EQ(fresh.ctx, nullptr);
  EXPECT_EQ(fresh.key_file, "a key");
  EXPECT_EQ(fresh.crt_file, "a crt");
  EXPECT_EQ(fresh.crt_mtime, 0.0);
  EXPECT_EQ(fresh.last_check, 0.0);
  expect_notes({});
}

TEST_F(tls_hooks, fields_stand_in_the_order_of_the_design) {
  const ssl_server<talker> fresh(8443, "", "");
  const void* places[] = {&fresh.last_count, &fresh.ctx,       &fresh.is_new_api, &fresh.key_file,
                          &fresh.crt_file,   &fresh.crt_mtime, &fresh.last_check};
  EXPECT_TRUE(std::is_sorted(std::begin(places), std::end(places), std::less<>()));
}

TEST_F(tls_hooks, accepting_makes_a_session_on_the_socket_and_starts_the_handshake) {
  EXPECT_TRUE(srv->on_accept(&lone));
  expect_notes({"SSL_new(ctx)", "SSL_set_fd(s1, " + std::to_string(lone.sock) + ")", "SSL_accept(s1)"});
  ASSERT_NE(lone.ssl, nullptr);
  EXPECT_EQ(static_cast<fake_openssl::session*>(lone.ssl)->name, "s1");
}

TEST_F(tls_hooks, results_of_the_handshake_calls_are_ignored) {
  for (int result : {1, 0, -1}) {
    tls.result = result;
    EXPECT_TRUE(srv->on_accept(&lone)) << result;
  }
}

TEST_F(tls_hooks, connection_without_a_context_is_refused_without_a_call) {
  srv->ctx = nullptr;
  EXPECT_FALSE(srv->on_accept(&lone));
  EXPECT_EQ(lone.ssl, nullptr);
  expect_notes({});
}

TEST_F(tls_hooks, connection_without_a_session_is_refused) {
  tls.gives_session = false;
  EXPECT_FALSE(srv->on_accept(&lone));
  EXPECT_EQ(lone.ssl, nullptr);
  expect_notes({"SSL_new(ctx)"});
}

TEST_F(tls_hooks, reading_passes_buffer_and_length_on) {
  accept();
  for (int len : {1, 5, 1048576}) {
    tls.reads = [](fake_openssl::session&, char*, int) { return 1; };
    EXPECT_EQ(srv->recv(&lone, buf, len), 1);
    EXPECT_EQ(tls.last_buffer, buf);
    expect_notes({"SSL_read(s1, " + std::to_string(len) + ") -> 1"});
  }
}

TEST_F(tls_hooks, result_of_reading_comes_back_unchanged) {
  accept();
  for (int n : {1, 64, 1048576, 0}) {
    tls.reads = [=](fake_openssl::session&, char*, int) { return n; };
    EXPECT_EQ(srv->recv(&lone, buf, sizeof(buf)), n);
  }
}

TEST_F(tls_hooks, negative_result_of_reading_comes_back_unchanged) {
  for (int n : {-1, -2, INT_MIN}) {
    accept();
    tls.reads = [=](fake_openssl::session&, char*, int) { return n; };
    EXPECT_EQ(srv->recv(&lone, buf, sizeof(buf)), n);
  }
}

TEST_F(tls_hooks, writing_passes_buffer_and_length_on) {
  accept();
  for (int len : {0, 1, 5, 1048576}) {
    tls.writes = [](fake_openssl::session&, char*, int) { return 1; };
    EXPECT_EQ(srv->send(&lone, buf + 3, len), 1);
    EXPECT_EQ(tls.last_buffer, buf + 3);
    expect_notes({"SSL_write(s1, " + std::to_string(len) + ") -> 1"});
  }
}

TEST_F(tls_hooks, result_of_writing_comes_back_unchanged) {
  accept();
  for (int n : {1, 64, 1048576, 0, -1, -2, INT_MIN}) {
    tls.writes = [=](fake_openssl::session&, char*, int) { return n; };
    EXPECT_EQ(srv->send(&lone, buf, sizeof(buf)), n);
  }
}

TEST_F(tls_hooks, removing_shuts_the_session_down_once_and_frees_it) {
  for (int result : {1, 0, -1}) {
    accept();
    tls.result = result;
    srv->on_remove(&lone);
    const std::string name = "(s" + std::to_string(result == 1 ? 1 : result == 0 ? 2 : 3) + ")";
    expect_notes({"SSL_shutdown" + name, "SSL_free" + name});
  }
}

TEST_F(tls_hooks, removed_connection_has_no_session_any_more) {
  accept();
  srv->on_remove(&lone);
  EXPECT_EQ(lone.ssl, nullptr);
}

TEST_F(tls_hooks, removing_a_connection_without_a_session_calls_nothing) {
  srv->on_remove(&lone);
  expect_notes({});
}

TEST_F(tls_hooks, destructor_frees_the_context) {
  srv.reset();
  expect_notes({"SSL_CTX_free(ctx)"});
}

TEST_F(tls_hooks, destructor_without_a_context_survives_a_missing_library) {
  srv->ctx = nullptr;
  tls.remove(openssl::SSL_CTX_free);
  srv.reset();
  expect_console("");
}

TEST_F(tls_hooks, destructor_that_cannot_free_the_context_prints_why) {
  tls.remove(openssl::SSL_CTX_free, "Error! Missing export(s) in libssl.so:\nSSL_CTX_free");
  srv.reset();
  expect_console("Error! Missing export(s) in libssl.so:\nSSL_CTX_free\n");
}
