/* proxy_pipe: the bytes under way between one client connection and its upstream.
 *
 * Shared by the two and owned by neither: `refs` counts the owners, and whoever drops the last reference
 * frees it. refs == 1 tells an owner that its partner is gone. Both queues are unbounded; their sizes are
 * bytes. The descriptors are borrowed: with them, a side that queues bytes wakes the other side. The
 * descriptor of a side that is not there is -1. A side that ends sets its own descriptor to -1. */
#pragma once

#include <cstdint>
#include <new>

#include "base/byte_queue.h"
#include "net/sockets.h"
#include "proxy/answers.h"

struct proxy_pipe {
  int32_t refs = 1;
  base::byte_queue to_upstream;
  base::byte_queue to_client;
  int client_sock = -1;
  int upstream_sock = -1;
  int64_t offered = 0;    // bytes that give_upstream() has handed out
  bool answered = false;  // some bytes were queued for the client

  /* Queues bytes for the upstream, and makes the next select() wait for its socket. */
  void append_to_upstream(const char* data, size_t len) {
    to_upstream.append(data, len);
    sockets::mark_ready(upstream_sock);
  }

  /* Queues bytes for the client, and makes the next select() wait for its socket. */
  void append_to_client(const char* data, size_t len) {
    to_client.append(data, len);
    answered = true;
    sockets::mark_ready(client_sock);
  }

  /* Each side calls its function when the server asks it for output. Moves up to `cap` bytes of the queue to
   * `buf` and stores their number in *len. Returns whether the connection stays open: more bytes are queued,
   * or the partner is there and may queue more. */
  bool give_upstream(char* buf, int cap, int* len) {
    const bool stays = drain(to_upstream, buf, cap, len);
    offered += *len;
    return stays;
  }
  bool give_client(char* buf, int cap, int* len) { return drain(to_client, buf, cap, len); }

  /* The upstream is gone, or there never was one. It has not taken the last `unsent` of the bytes that it was
   * offered. An upstream that took no byte and sent none counts as unreachable. Its client then gets the 502
   * and nothing else; without memory for the 502, the client gets no byte at all. */
  void lose_upstream(int unsent) noexcept {
    const bool took_nothing = offered == unsent;
    if (!took_nothing || answered || !to_client.empty()) return;
    try {
      to_client = bad_gateway_answer;
    } catch (const std::bad_alloc&) {
      to_client.clear();
    }
    sockets::mark_ready(client_sock);
  }

  /* Drops one reference. This may free the pipe, so the caller must forget its pointer. Wakes the other side,
   * which then sees that its partner is gone. */
  void release() {
    sockets::mark_ready(client_sock);
    sockets::mark_ready(upstream_sock);
    if (refs-- == 1) delete this;
  }

 private:
  bool drain(base::byte_queue& queue, char* buf, int cap, int* len) {
    *len = queue.empty() ? 0 : static_cast<int>(queue.consume(buf, static_cast<size_t>(cap)));
    return !queue.empty() || refs > 1;
  }
};
