#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <cstdlib>

#include "tests/soak/sides.h"

upstream_link::upstream_link(soak& the_run, int the_sock) : endpoint(the_run) {
  sock = the_sock;
  run.links++;
  int on = 1;
  setsockopt(sock, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  watch(EPOLLIN);
}

upstream_link::~upstream_link() {
  close_socket();
  run.links--;
}

void upstream_link::on_ready() {
  const bool is_answering = now && received == now->forwarded.size();
  if (is_answering && !answer()) {
    delete this;
    return;
  }
  const int64_t n = read_some(SIZE_MAX);
  if (n == -1) return;
  if (n <= 0) {
    if (!ends_with_reason())
      run.report(run.errors, n == 0 ? "the upstream is closed early" : "broken at the upstream",
                 now ? &*now : nullptr, received);
    delete this;
  } else if (!take(buf, static_cast<size_t>(n))) {
    delete this;
  }
}

// Between two requests any client may leave. Within a request, only a client that announced it may.
bool upstream_link::ends_with_reason() const {
  return now ? now->kind == left : beginning.empty();
}

// Compares the bytes that have come. Returns whether the connection stays open.
bool upstream_link::take(const char* data, size_t len) {
  if (!now) {
    beginning.append(data, len);
    if (!recognise())
      return beginning.size() < 64 || (run.report(run.wrong, "no request", nullptr, 0), false);
    received = 0;
    const std::string text = std::move(beginning);
    beginning.clear();
    return take(text.data(), text.size());
  }
  const size_t good = now->forwarded.count_equal(run.source, received, data, len);
  run.bytes += good;
  if (good < len) {
    run.report(run.wrong, "wrong byte at the upstream", &*now, received + good);
    return false;
  }
  received += len;
  if (received < now->forwarded.size()) return true;
  prepare_reply();
  return answer();
}

// Reads the target as soon as all of it has come.
bool upstream_link::recognise() {
  const size_t slash = beginning.find('/');
  if (slash == std::string::npos || beginning.size() < slash + exchange::target_len) return false;
  const auto kind = static_cast<exchange_kind>(beginning[slash + 1]);
  if (kind != relayed && kind != large && kind != uploaded && kind != left && kind != dropped) return false;
  now.emplace(run.seed, kind, strtoull(beginning.substr(slash + 2, 16).c_str(), nullptr, 16));
  return true;
}

void upstream_link::prepare_reply() {
  sent = 0;
  run.replies++;
  if (run.wrong_reply == 0 || run.replies < run.wrong_reply || now->kind != relayed || now->reply.body == 0)
    return;
  run.wrong_reply = 0;
  now->reply.start++;
}

// Sends the bytes that the socket takes. Returns whether the connection stays open.
bool upstream_link::answer() {
  if (!send_some(now->reply, sent, SIZE_MAX)) {
    if (now->kind != left) run.report(run.errors, "the upstream cannot send", &*now, sent);
    return false;
  }
  const bool is_sent = sent == now->reply.size();
  watch(is_sent ? EPOLLIN : EPOLLIN | EPOLLOUT);
  if (!is_sent) return true;
  const bool stays = now->kind != dropped;
  now.reset();
  return stays;
}
