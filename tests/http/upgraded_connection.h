/* upgraded_connection: a fixture with a connection that speaks WebSocket and stays open.
 *
 * The response to the handshake has been sent. Everything that is queued afterwards are frames.
 *
 *     receive(c(), short_frame(fin + text, "..."));
 *                                          a frame from the client; see client_frames.h and delivery.h
 *     messages()                           the messages delivered so far
 *     send_everything(c())                 what the server sends
 *     expect_open();                       the connection goes on
 *     expect_fault("line\n", input);       the line was printed and the connection closes
 *     reconnect();                         a new connection; the console is empty again */
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "tests/http/client_frames.h"
#include "tests/http/delivery.h"
#include "tests/http/recorder.h"
#include "tests/support/console.h"

inline std::string handshake(const std::string& key, const std::string& version,
                             const std::string& http = "HTTP/1.1") {
  return "GET /chat " + http +
         "\r\nHost: h\r\nUpgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Key: " + key +
         "\r\nSec-WebSocket-Version: " + version + "\r\n\r\n";
}

const std::string rfc_handshake = handshake("dGhlIHNhbXBsZSBub25jZQ==", "13");

inline std::unique_ptr<recorder> upgraded_recorder() {
  auto c = std::make_unique<recorder>();
  c->stays_upgraded = true;
  receive(*c, rfc_handshake);
  send_everything(*c);
  c->events.clear();
  return c;
}

class upgraded_connection : public testing::Test {
 protected:
  recorder& c() { return *connection_; }

  /* Starts over with a new connection. */
  void reconnect() {
    connection_ = upgraded_recorder();
    console_.clear();
  }

  /* The messages delivered so far. */
  std::vector<std::string> messages() {
    std::vector<std::string> all;
    for (const std::string& event : c().events) {
      if (event.compare(0, 8, "message ") == 0) all.push_back(event.substr(8));
    }
    return all;
  }

  /* Expects that the connection goes on without a message. */
  void expect_open() {
    EXPECT_TRUE(c().keep_alive);
    EXPECT_EQ(c().timeout, -1);
    EXPECT_TRUE(c().upgraded);
  }

  /* Expects a fault: this line was printed, the connection closes, and the input is still there. */
  void expect_fault(const std::string& line, const std::string& input) {
    EXPECT_EQ(console_.text(), line);
    EXPECT_FALSE(c().keep_alive);
    EXPECT_EQ(c().timeout, 0);
    EXPECT_TRUE(c().upgraded);
    EXPECT_TRUE(c().content == input) << c().content.size() << " bytes";
    send_everything(c());
    EXPECT_FALSE(send_once(c()).stays);
  }

  console console_;

 private:
  std::unique_ptr<recorder> connection_ = upgraded_recorder();
};
