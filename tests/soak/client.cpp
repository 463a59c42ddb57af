#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include "tests/soak/sides.h"
#include "tests/soak/tls_client.h"

namespace {

constexpr uint64_t hangs_after_ms = 30000;
constexpr uint64_t rest_ms = 100;  // between two requests of a heavy client

sockaddr_in loopback(uint64_t lowest_byte, int port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(static_cast<uint32_t>(0x7f000000 + lowest_byte));
  address.sin_port = htons(static_cast<uint16_t>(port));
  return address;
}

}  // namespace

client::client(soak& the_run, habit the_habit, uint64_t number)
    : endpoint(the_run), ways(the_habit), address(1 + number % 250), random{mix(the_run.seed + number)} {}

void client::tick() {
  if (sock == -1) {
    if (!run.ending && run.now_ms >= resting_until_ms) open();
  } else if (!now) {
    if (run.ending)
      close_socket();
    else if (run.now_ms >= resting_until_ms)
      begin();
  } else if (run.now_ms - moved_ms > hangs_after_ms) {
    fail("a request hangs");
  } else if (ways == habit::sluggish && (run.ending || random.below(2) == 0)) {
    const size_t limit = run.ending ? SIZE_MAX : 4000;
    move(1 + random.below(limit), 1 + random.below(limit));
  }
}

void client::open() {
  sock = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  int on = 1;
  setsockopt(sock, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  setsockopt(sock, IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &on, sizeof(on));
  const sockaddr_in own = loopback(address, 0), mivo = loopback(1, run.mivo_port);
  const bool is_bound = bind(sock, reinterpret_cast<const sockaddr*>(&own), sizeof(own)) == 0;
  if (!is_bound ||
      (connect(sock, reinterpret_cast<const sockaddr*>(&mivo), sizeof(mivo)) != 0 && errno != EINPROGRESS)) {
    fail("cannot connect");
    return;
  }
  if (run.over_tls) {
    session = tls_client::new_session(sock);
    if (!session) return fail("no session");
  }
  run.connections++;
  requests_left = ways == habit::steady  ? 1 + random.below(20000)
                  : ways == habit::brief ? 1
                                         : 1 + random.below(50);
  begin();
}

void client::begin() {
  exchange_kind kind = random.below(8) == 0 ? echoed : relayed;
  if (ways == habit::leaving) kind = left;
  if (ways == habit::stranded) kind = dropped;
  if (ways == habit::heavy) kind = large;
  if (ways == habit::uploading) kind = uploaded;
  now.emplace(run.seed, kind, random.below(UINT64_MAX) << 8 | address);
  sent = received = 0;
  patience = ways == habit::leaving ? random.below(now->request.size() + now->reply.size() + 1) : SIZE_MAX;
  moved_ms = run.now_ms;
  go_on();
}

void client::on_ready() {
  if (now)
    go_on();
  else if (read_some(1) != -1)
    fail("something happens between two requests");
}

void client::go_on() {
  if (ways == habit::sluggish) return;
  if (!move(patience - std::min(patience, sent + received), SIZE_MAX)) return;
  if (sent + received >= patience) return leave();
  watch(sent < now->request.size() && !waits_for_input ? EPOLLIN | EPOLLOUT : EPOLLIN);
}

// Sends and reads as many bytes as there are, up to the limits. Returns whether the exchange goes on.
bool client::move(size_t send_limit, size_t read_limit) {
  if (sent < now->request.size()) {
    const size_t sent_before = sent;
    const bool was_sendable = send_some(now->request, sent, send_limit);
    if (!was_sendable) return fail("broken while sending"), false;
    if (sent > sent_before) moved_ms = run.now_ms;
    if (sent == now->request.size() && ways != habit::sluggish) return true;  // the response takes a while
  }
  const int64_t n = read_some(read_limit);
  if (n == -1) return true;
  if (n > 0) return take(static_cast<size_t>(n));
  const bool is_stranded = now->kind == dropped && received == now->reply.size();
  if (n == 0 && is_stranded) {
    run.requests++;
    close_socket();
    now.reset();
  } else {
    fail(n == 0 ? "closed before the reply was complete" : "broken while reading");
  }
  return false;
}

bool client::take(size_t len) {
  const size_t good = now->reply.count_equal(run.source, received, buf, len);
  run.bytes += good;
  if (good < len || sent < now->request.size()) {
    run.report(run.wrong, "wrong byte at a client", &*now, received + good);
    close_socket();
    now.reset();
    return false;
  }
  received += len;
  moved_ms = run.now_ms;
  if (now->kind == dropped || received < now->reply.size()) return true;
  finish();
  return false;
}

void client::finish() {
  run.requests++;
  now.reset();
  if (ways == habit::heavy) resting_until_ms = run.now_ms + rest_ms;
  if (--requests_left == 0 || run.ending) {
    close_socket();
  } else if (ways != habit::heavy) {
    begin();
  }
}

void client::leave() {
  run.left++;
  const linger at_once = {1, 0};
  if (random.below(2) == 0) setsockopt(sock, SOL_SOCKET, SO_LINGER, &at_once, sizeof(at_once));
  close_socket();
  now.reset();
}

void client::fail(const char* what) {
  run.report(run.errors, what, now ? &*now : nullptr, received);
  close_socket();
  now.reset();
}
