/* ssl_server_fixture: a TLS server over a faked OpenSSL, and the vocabulary of the tests about them. The
 * clock stands still, and the server never reports its count.
 *
 *     make_server("key", "crt");           another server, with a context
 *     listen();                            it starts
 *     client c = join();                   a client that is accepted; `conn` is the server's side
 *     deliver(c, "...");                   the client's bytes have arrived at the socket
 *     unread_bytes()                       how many bytes are still there
 *     conn->answer = "...";                the next on_send() gives it
 *     turn();                              one wait, one update
 *     conn->received                       what the session has given
 *     expect_notes({"SSL_new(ctx) -> s1", ...});
 *                                          the library's calls since the last time
 *     expect_console("...");               what was printed since the last time
 *
 * See fake_openssl.h for what the library returns. */
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "net/sockets.h"
#include "tests/support/client.h"
#include "tests/support/console.h"
#include "tests/support/faults.h"
#include "tests/support/turns.h"
#include "tests/tls/fake_openssl.h"
#include "tls/ssl_server.h"

/* A connection that keeps what it receives and gives what a test tells it to. */
struct talker : connection {
  std::string received;
  std::string answer;  // given by the next on_send

  ~talker() override { fake_openssl::note("connection deleted"); }

  void on_recv(char* data, int len) override {
    received.append(data, static_cast<size_t>(len));
    fake_openssl::note("on_recv " + std::string(data, static_cast<size_t>(len)));
  }

  bool on_send(char* buf, int, int* len) override {
    *len = static_cast<int>(answer.copy(buf, answer.size()));
    answer.clear();
    return true;
  }
};

class ssl_server_fixture : public testing::Test {
 protected:
  static constexpr int64_t start_time = 1700000000;

  ssl_server_fixture() {
    faults::frozen_clock() = start_time;
    make_server("key.pem", "crt.pem");
  }
  ~ssl_server_fixture() override {
    faults::clear();
    sockets::num_ready() = 0;
  }

  /* A server that does not listen yet, with a context. */
  void make_server(const std::string& key, const std::string& crt) {
    srv = std::make_unique<ssl_server<talker>>(free_port(), key, crt);
    srv->ctx = fake_openssl::context();
    silence_reports(*srv);
  }

  void listen() {
    ASSERT_TRUE(srv->start());
    screen.clear();
  }

  void turn() { take_turn(*srv); }

  /* A client that the server has accepted; `conn` is the server's side. */
  client join() {
    client c(srv->port);
    EXPECT_TRUE(wait_for(srv->sock, POLLIN));
    EXPECT_TRUE(srv->accept_connection());
    if (srv->connections.count > 0) conn = static_cast<talker*>(srv->connections.tail->value);
    return c;
  }

  /* Sends bytes. They have arrived when this returns. */
  void deliver(client& from, const std::string& bytes) {
    EXPECT_TRUE(send_and_wait(from, conn->sock, bytes));
  }

  /* Bytes that the session has left in the socket. */
  int unread_bytes() const { return ::unread_bytes(conn->sock); }

  void expect_console(const std::string& text) {
    EXPECT_EQ(screen.text(), text);
    screen.clear();
  }

  /* What was noted since the last call. */
  void expect_notes(const std::vector<std::string>& wanted) { EXPECT_EQ(tls.take_notes(), wanted); }

  console screen;
  fake_openssl tls;
  std::unique_ptr<ssl_server<talker>> srv;
  talker* conn = nullptr;
};
