/* ssl_server_fixture: a TLS server over a faked OpenSSL, and the words of the tests about them. The clock
 * stands still, and the server never reports its count. */
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/ioctl.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "net/sockets.h"
#include "tests/support/client.h"
#include "tests/support/console.h"
#include "tests/support/faults.h"
#include "tests/tls/fake_openssl.h"
#include "tls/ssl_server.h"

/* A connection that keeps what it receives, and gives what it is told to. */
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
    srv->last_report = INT64_MAX / 2;
  }

  void listen() {
    ASSERT_TRUE(srv->start());
    screen.clear();
  }

  void turn() {
    sockets::select_all();
    srv->update();
  }

  /* Waits until poll() reports one of `events` for `sock`. */
  static void wait_for(int sock, short events) {
    pollfd p = {sock, events, 0};
    EXPECT_EQ(::poll(&p, 1, 10000), 1);
  }

  /* A client that the server has accepted; `conn` is the server's side. */
  client join() {
    client c(srv->port);
    wait_for(srv->sock, POLLIN);
    EXPECT_TRUE(srv->accept_connection());
    if (srv->connections.count > 0) conn = static_cast<talker*>(srv->connections.tail->value);
    return c;
  }

  /* Sends bytes that are there when this returns. */
  void deliver(client& from, const std::string& bytes) {
    int before = unread_bytes();
    from.send(bytes);
    EXPECT_TRUE(
        repeat_until([] {}, [&] { return unread_bytes() == before + static_cast<int>(bytes.size()); }));
  }

  /* Bytes that the session has left in the socket. */
  int unread_bytes() const {
    int count = 0;
    ioctl(conn->sock, FIONREAD, &count);
    return count;
  }

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
