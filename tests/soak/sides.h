/* The two sides of the soak, which share one epoll loop: clients of mivo, and the upstream behind it.
 *
 * epoll watches endpoints, and the loop calls their on_ready(). Clients live as long as the run and open one
 * connection after the other. An upstream_link is the upstream's end of a connection. It deletes itself when
 * the connection is closed; this is safe because a batch of events names each endpoint at most once. */
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "tests/soak/exchange.h"

/* The state that all share. All counters except `links` only grow. */
struct soak {
  uint64_t seed = 0;
  pattern source;
  int epoll = -1;
  int mivo_port = 0;
  uint64_t wrong_reply = 0;  // the number of the response that the upstream gets wrong on purpose; 0: none
  uint64_t now_ms = 0;
  bool over_tls = false;  // the clients speak TLS, and some of them upload
  bool ending = false;    // no new requests begin

  uint64_t requests = 0;     // requests that were answered, with every byte right
  uint64_t bytes = 0;        // bytes that were compared, at both ends
  uint64_t connections = 0;  // connections that clients opened
  uint64_t left = 0;         // requests whose clients closed early
  uint64_t replies = 0;      // responses that the upstream began
  uint64_t wrong = 0;        // exchanges with a wrong byte
  uint64_t errors = 0;       // connections that failed or ended without a reason, and requests that hung
  uint64_t links = 0;        // connections that are open at the upstream

  explicit soak(uint64_t the_seed) : seed(the_seed), source(the_seed) {}

  /* Counts a fault and, unless there were many, describes it. */
  void report(uint64_t& counter, const char* what, const exchange* during, size_t at);
};

struct endpoint {
  soak& run;
  int sock = -1;
  void* session = nullptr;  // the session of a client over TLS; owned
  uint32_t watched = 0;     // the events that epoll watches; 0: none

  explicit endpoint(soak& the_run) : run(the_run) {}
  endpoint(const endpoint&) = delete;
  endpoint& operator=(const endpoint&) = delete;
  virtual ~endpoint() = default;
  virtual void on_ready() = 0;

 protected:
  void watch(uint32_t events);
  void close_socket();
  /* Sends bytes of `text` from `at` on, at most about `limit` bytes, and advances `at`. Returns false if the
   * connection is broken. */
  bool send_some(const message& text, size_t& at, size_t limit);
  /* Reads up to `limit` bytes into `buf`. Returns their number, 0 at the end, -1 if there is nothing yet, or
   * -2 if the connection is broken. */
  int64_t read_some(size_t limit);

  bool waits_for_input = false;  // the session has to read before it can send more

  static constexpr size_t buffer_size = 1 << 18;
  static char buf[buffer_size];

 private:
  size_t refused = 0;  // bytes of a write that the session refused; it has to be given them again

  bool send_over_tls(const message& text, size_t& at, size_t limit);
};

enum class habit {
  steady,    // many requests on a connection, one after the other
  brief,     // one request on each connection
  sluggish,  // sends and reads in small pieces, with pauses
  leaving,   // closes at any moment, half of the times with a reset
  stranded,  // asks for responses in which the upstream closes
  heavy,     // bodies of some MiB, with pauses
  uploading  // requests of many MiB
};

class client final : public endpoint {
 public:
  client(soak& the_run, habit the_habit, uint64_t number);

  void on_ready() override;
  /* Called every few milliseconds. Opens a connection if it is time, moves a sluggish client, ends one that
   * hangs. */
  void tick();
  bool is_open() const { return sock != -1; }

 private:
  const habit ways;
  const uint64_t address;  // the lowest byte of the client's address
  random_numbers random;
  std::optional<exchange> now;
  size_t sent = 0, received = 0;
  uint64_t requests_left = 0;  // on this connection
  size_t patience = 0;         // the client closes after this many bytes, sent and received
  uint64_t moved_ms = 0;       // when the last bytes of the request or its response moved
  uint64_t resting_until_ms = 0;

  void open();
  void begin();
  void go_on();
  bool move(size_t send_limit, size_t read_limit);
  bool take(size_t len);
  void finish();
  void leave();
  void fail(const char* what);
};

class upstream_link final : public endpoint {
 public:
  upstream_link(soak& the_run, int the_sock);
  ~upstream_link() override;

  void on_ready() override;

 private:
  std::string beginning;  // the beginning of a request whose target is not complete
  std::optional<exchange> now;
  size_t received = 0, sent = 0;

  bool take(const char* data, size_t len);
  bool recognise();
  void prepare_reply();
  bool answer();
  bool ends_with_reason() const;
};
