/* chat: a WebSocket chat room, and the page that talks to it. Run it with a port, open the page in two tabs.
 *
 * All members are in one channel. A message of one member goes to all members, as a text frame. It must be
 * text, because a browser closes the connection when a text frame holds anything else. It must be short,
 * because a copy is kept for each member. One message becomes as many messages as there are members. So no
 * member may send many messages, or leave many of them unread. */

#include <cstdint>
#include <cstdio>
#include <ctime>
#include <string>

#include "base/text.h"
#include "http/http_connection.h"
#include "net/server.h"
#include "net/sockets.h"

namespace {

const char room[] = "room";

constexpr int32_t longest_message = 4096;    // bytes
constexpr int most_messages_a_second = 100;  // from one member
constexpr int most_unread_messages = 1000;   // queued for one member

/* Whether `message` is UTF-8 (RFC 3629), which a text frame must hold. */
bool is_text(const std::string& message) {
  for (size_t i = 0; i < message.size();) {
    if (base::utf8_decode(message, i) > 0x10FFFF) return false;
  }
  return true;
}

const char page[] = R"(<!doctype html>
<html lang="en">
<meta charset="utf-8">
<title>Chat</title>
<style>
  body { font: 16px sans-serif; max-width: 40em; margin: 2em auto; }
  #log { border: 1px solid #999; height: 20em; overflow-y: auto; padding: 0.5em; }
  input { font: inherit; width: 100%; box-sizing: border-box; margin-top: 0.5em; }
</style>
<h1>Chat</h1>
<div id="log"></div>
<input id="say" placeholder="Say something, then Enter" maxlength="100" autofocus>
<script>
  const log = document.getElementById("log"), say = document.getElementById("say");
  const show = text => {
    log.append(Object.assign(document.createElement("div"), { textContent: text }));
    log.scrollTop = log.scrollHeight;
  };
  const socket = new WebSocket(`ws://${location.host}/`);
  socket.onopen = () => show("You are in.");
  socket.onmessage = event => show(event.data);
  socket.onclose = () => show("You are out.");
  // Longer frames would not be understood: the server reads their lengths least significant byte first, and
  // browsers send them the other way round.
  const fits = text => new TextEncoder().encode(text).length <= 125;
  say.onchange = () => {
    if (fits(say.value)) { socket.send(say.value); say.value = ""; }
    else show("That is too long.");
  };
</script>
)";

struct chat_connection : http_connection {
  void on_request() override {
    if (written) return;                             // a refused upgrade, or bytes after the last request
    if (response_parts.count > 0) return hang_up();  // a client that does not read may not ask again
    if (path == "/")
      write("HTTP/1.1 200 OK\r\nContent-Type: text/html; charset=utf-8\r\n", page);
    else
      write("HTTP/1.1 404 Not Found\r\nContent-Type: text/plain\r\n", "There is only one page here.\n");
  }

  // Does not call the base, which would close the connection.
  void on_upgrade() override {
    max_frame_length = max_message_length = longest_message;
    subscribe(room);
  }

  void on_data(char* data, int len) override {
    if (upgraded && !keep_alive) return;  // about to close: bytes that still come are dropped
    http_connection::on_data(data, len);
    if (response_parts.count > most_unread_messages) hang_up();  // e.g. it sends pings and reads no pongs
  }

  void on_message() override {
    if (!keep_alive) return;  // an earlier message of the same read has ended this connection
    if (is_too_fast()) return hang_up();
    if (!is_text(message)) return;
    publish(room, message, text_frame);
    const base::arraylist<http_connection*>& members = *channels().get(room);
    for (uint32_t i = 0; i < members.count; i++) {
      if (members.data[i]->response_parts.count > most_unread_messages) members.data[i]->hang_up();
    }
  }

 private:
  int64_t second_ = 0;  // of the last message, since the epoch
  int messages_ = 0;    // that came in this second

  bool is_too_fast() {
    const int64_t now = time(nullptr);
    if (now != second_) messages_ = 0;
    second_ = now;
    return ++messages_ > most_messages_a_second;
  }
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    printf("USAGE: chat [port]\n");
    return 1;
  }
  sockets::raise_descriptor_limit();
  server<chat_connection> http(base::parse_int(argv[1]));
  http.run();
  return 0;
}
