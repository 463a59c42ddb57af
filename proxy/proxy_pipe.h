/* proxy_pipe: the bytes under way between one client connection and its upstream.
 *
 * Shared by the two and owned by neither: `refs` counts the owners, and whoever drops the last reference
 * frees it. refs == 1 tells an owner that its partner is gone. Both queues are unbounded; their sizes are
 * bytes. The descriptors are borrowed, and -1 for a side that is not there: they let a side that queues bytes
 * wake the other. The side that ends clears its own. */
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
  int64_t offered = 0;    // bytes that give_upstream() has given out
  bool answered = false;  // something was given to the client through this pipe

  /* Queues bytes for the upstream, and has the next select() wait for its socket. */
  void append_to_upstream(const char* data, size_t len) {
    to_upstream.append(data, len);
    sockets::mark_ready(upstream_sock);
  }

  /* Queues bytes for the client, and has the next select() wait for its socket. */
  void append_to_client(const char* data, size_t len) {
    to_client.append(data, len);
    answered = true;
    sockets::mark_ready(client_sock);
  }

  /* What each side answers the server that asks it for output: moves up to `cap` bytes of its queue to `buf`
   * and stores their number in *len. Returns whether to stay open: there is more, or the partner may bring
   * some. */
  bool give_upstream(char* buf, int cap, int* len) {
    const bool stays = drain(to_upstream, buf, cap, len);
    offered += *len;
    return stays;
  }
  bool give_client(char* buf, int cap, int* len) { return drain(to_client, buf, cap, len); }

  /* There is no upstream any more, or there never was: `unsent` of the bytes that it was offered were not
   * taken. One that took no byte and gave none was not there. Its client then gets the 502, and nothing else;
   * without memory for that, an empty reply. */
  void lose_upstream(int unsent) noexcept {
    const bool took_nothing = offered == unsent;
    if (!took_nothing || answered) return;
    try {
      to_client = bad_gateway_answer;
    } catch (const std::bad_alloc&) {
      to_client.clear();
    }
    sockets::mark_ready(client_sock);
  }

  /* Drops one reference; the pipe may be freed by that, and the caller forgets its pointer. The other side is
   * woken, to see that it is alone. */
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
