/* programs: servers for a fuzzer, as users of the library write them: the handlers of examples/, unchanged,
 * and hooks that throw. slow_job is left out, because what a thread does cannot be repeated. */
#pragma once

#include <cstdlib>
#include <new>
#include <string>

#include "http/http_connection.h"
#include "net/server.h"

// Each example is one file with a main() of its own.
#define main main_of_chat
#include "examples/chat.cpp"
#undef main
#define main main_of_file_server
#include "examples/file_server.cpp"
#undef main
#define main main_of_forward_proxy
#include "examples/forward_proxy.cpp"
#undef main

/* Throws where it is told to: by "!" and the letter of a hook in the path, the body or a message, then a
 * letter for the kind of exception. Its destructor publishes a last message to its channel. */
struct throwing_connection : http_connection {
  ~throwing_connection() override { publish("room", "gone", text_frame); }

  void on_headers() override {
    told_ = path;
    throw_maybe(path, 'h');
  }
  void on_data(char* data, int len) override {
    throw_maybe(std::string(data, static_cast<size_t>(len)), 'd');
    http_connection::on_data(data, len);
  }
  void on_upgrade() override {
    subscribe("room");
    throw_maybe(path, 'u');
  }
  void on_message() override {
    publish("room", message, text_frame);
    throw_maybe(message, 'm');
  }
  void on_request() override {
    http_connection::on_request();
    throw_maybe(path, 'r');
  }
  bool on_send(char* buf, int cap, int* len) override {
    const bool stays = http_connection::on_send(buf, cap, len);
    if (*len > 0) throw_maybe(told_, 's');
    return stays;
  }

 private:
  std::string told_;  // the last path

  static void throw_maybe(const std::string& text, char hook) {
    const size_t at = text.find(std::string("!") + hook);
    if (at == text.npos) return;
    switch (at + 2 < text.size() ? text[at + 2] : '\0') {
      case 'g':
        get_header("a", "\r\na");  // a head that ends too early, so this throws
        break;
      case 'b':
        throw std::bad_alloc();
      default:
        throw 1;
    }
  }
};

/* The server of such connections. Its hooks throw every few times, too. */
struct throwing_server : server<throwing_connection> {
  using server<throwing_connection>::server;

  connection* create_connection(int ip) override {
    if (++created_ % 5 == 0) throw std::bad_alloc();
    return server<throwing_connection>::create_connection(ip);
  }
  bool on_accept(connection*) override {
    if (++accepted_ % 4 == 0) throw 1;
    return true;
  }
  void on_remove(connection*) override {
    if (++removed_ % 3 == 0) throw std::bad_alloc();
  }

 private:
  int created_ = 0, accepted_ = 0, removed_ = 0;
};
