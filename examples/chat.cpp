/* chat: a WebSocket chat room, and the page that talks to it. Run it with a port, open the page in two tabs.
 *
 * Everybody is in one channel. What one sends, all get, as text frames. */

#include <cstdio>
#include <cstdlib>

#include "http/http_connection.h"
#include "net/server.h"
#include "net/sockets.h"

namespace {

const char room[] = "room";

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
    if (response_parts.count > 0) return hang_up();  // whoever does not read is not to ask on
    if (path == "/")
      write("HTTP/1.1 200 OK\r\nContent-Type: text/html; charset=utf-8\r\n", page);
    else
      write("HTTP/1.1 404 Not Found\r\nContent-Type: text/plain\r\n", "There is only one page here.\n");
  }

  // Not calling the base: it would close the connection.
  void on_upgrade() override { subscribe(room); }

  void on_message() override { publish(room, message, text_frame); }
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    printf("USAGE: chat [port]\n");
    return 1;
  }
  sockets::raise_descriptor_limit();
  server<chat_connection> http(static_cast<int>(strtol(argv[1], nullptr, 10)));
  http.run();
  return 0;
}
