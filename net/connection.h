/* connection: one TCP connection as a server handles it, with its output buffer.
 *
 * Owned by the list of the server that services it. When the connection ends, this server closes `sock` and
 * deletes the object. In a subclass, on_recv() receives the bytes that were read, and on_send() provides the
 * bytes to write.
 *
 * The object takes a little over 1 MiB of address space, most of it for the output buffer. Objects on the
 * heap lie on zero-filled pages from the system, so only the pages that are used cost memory; see
 * net/connection_memory.h.
 *
 * Between calls of the server: (1) 0 <= out_pos, and out_pos + out_len <= sizeof(out) while out_len > 0; (2)
 * out_len is 0 when on_send is called, so a write is repeated with the same bytes, as SSL_write() demands;
 * (3) a negative out_len counts as output that is never sent. `keep` is true at first: otherwise a connection
 * that is woken before it is first asked for output would end. */
#pragma once

#include <cstddef>
#include <cstdint>
#include <new>

struct abstract_server;

struct connection {
  static constexpr int out_capacity = 1048576;  // bytes

  int sock = -1;                      // the descriptor; messages name the connection by it
  uint32_t ip = 0;                    // the peer's IPv4 address in network order; 0 for outgoing connections
  int port = 0;                       // the peer's port in host order; 0 for outgoing connections
  int32_t last_active;                // seconds since the epoch of the last bytes read or last try to send;
                                      // a handshake does not count, and rule 2 in net/server.h sets it back
  abstract_server* server = nullptr;  // the server that accepted it, borrowed; null for outgoing connections
  void* ssl = nullptr;                // the TLS session, owned by the TLS server and freed in its on_remove()
  int out_len = 0;                    // bytes of `out` still to be sent
  int out_pos = 0;                    // where these bytes start
  bool keep = true;                   // what on_send returned last: stay open once the output is sent?
  uint8_t fruitless = 0;              // turns in a row with a ready socket and no byte moved; 64 at most
  uint8_t unexplained = 0;            // how many of these turns came after the last one that asked to wait
  int out_filled = -1;                // bytes written to the front of `out`; -1: unknown before on_send()
  char out[out_capacity];             // not initialised: see operator new
  int timeout = 10;                   // idle seconds after which the connection is ended; negative: never

  connection();
  connection(const connection&) = delete;
  connection& operator=(const connection&) = delete;

  /* Called with each chunk read from the socket. The caller owns the bytes, and they are valid only during
   * the call. */
  virtual void on_recv(char* data, int len) = 0;

  /* Called when nothing is left to send: writes up to `cap` bytes to `buf` and stores their number in *len,
   * which the caller has set to 0. Returns whether the connection stays open after they are sent. The rest of
   * `buf` must stay as it is, because only *len bytes are cleared for the next object in this memory. */
  virtual bool on_send(char* buf, int cap, int* len) = 0;

  /* Must not throw: C++ would end the program. */
  virtual ~connection();

  /* Calls on_send() to fill `out`, and stores its results in `out_len`, `keep` and `out_filled`. Throws what
   * on_send() throws. */
  void fill_output();

  /* The connection that update() is servicing; null outside update(). Hooks may read it; the servers
   * only set it. */
  static connection*& selected();

  /* Zero-filled memory from connection_memory::shared(). The delete operators below give it back, also when a
   * constructor throws. When memory is refused, the plain operator throws std::bad_alloc, and the operator
   * with std::nothrow returns null. */
  static void* operator new(size_t size);
  static void* operator new(size_t size, const std::nothrow_t&) noexcept;
  static void* operator new(size_t, void* place) noexcept { return place; }
  static void operator delete(void* object, size_t size) noexcept;
  static void operator delete(void* object, const std::nothrow_t&) noexcept;
  static void operator delete(void*, void*) noexcept {}
};
