/* soak_load: mixed clients of a running mivo and the upstream behind it, in one process. It compares every
 * byte at both ends.
 *
 *     soak_load SEED SECONDS REQUESTS WRONG [tls]
 *
 * Prints the port of the upstream, and reads the port of mivo from standard input. Then it works until the
 * time is over or REQUESTS requests are done. Every second it prints the counters as a line with a JSON
 * object. It describes faults on standard error. If WRONG is not 0, the upstream answers about its WRONGth
 * request with a wrong body, to check that the soak finds it. With `tls`, the clients speak TLS, and some of
 * them upload. Returns 0 unless it could not begin; the counters tell the rest. */

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <list>

#include "tests/soak/sides.h"
#include "tests/soak/tls_client.h"

char endpoint::buf[endpoint::buffer_size];

void soak::report(uint64_t& counter, const char* what, const exchange* during, size_t at) {
  constexpr uint64_t enough = 20;
  if (++counter > enough) return;
  fprintf(stderr, "%s", what);
  if (during)
    fprintf(stderr, ", exchange %c%016" PRIx64 ", byte %zu; request %zu+%zu, reply %zu+%zu", during->kind,
            during->key, at, during->request.head.size(), during->request.body, during->reply.head.size(),
            during->reply.body);
  fprintf(stderr, "\n");
}

void endpoint::watch(uint32_t events) {
  if (events == watched) return;
  epoll_event event = {};
  event.events = events;
  event.data.ptr = this;
  epoll_ctl(run.epoll, watched == 0 ? EPOLL_CTL_ADD : EPOLL_CTL_MOD, sock, &event);
  watched = events;
}

void endpoint::close_socket() {
  if (session) tls_client::free_session(session);
  session = nullptr;
  refused = 0;
  waits_for_input = false;
  if (sock != -1) close(sock);
  sock = -1;
  watched = 0;
}

bool endpoint::send_over_tls(const message& text, size_t& at, size_t limit) {
  waits_for_input = false;
  limit = std::max(limit, refused);
  while (at < text.size() && limit > 0) {
    const char* data = nullptr;
    const size_t len = std::min(text.piece(run.source, at, data), limit);
    const int64_t n = tls_client::write(session, data, len);
    refused = n < 0 ? len : 0;
    waits_for_input = n == tls_client::wants_input;
    if (n <= 0) return waits_for_input || n == tls_client::wants_output;
    at += static_cast<size_t>(n);
    limit -= static_cast<size_t>(n);
  }
  return true;
}

bool endpoint::send_some(const message& text, size_t& at, size_t limit) {
  if (session) return send_over_tls(text, at, limit);
  while (at < text.size() && limit > 0) {
    iovec parts[3];
    size_t count = 0, offered = 0;
    while (count < 3 && at + offered < text.size() && offered < limit) {
      const char* data = nullptr;
      const size_t n = std::min(text.piece(run.source, at + offered, data), limit - offered);
      parts[count++] = {const_cast<char*>(data), n};
      offered += n;
    }
    msghdr packet = {};
    packet.msg_iov = parts;
    packet.msg_iovlen = count;
    const ssize_t n = sendmsg(sock, &packet, MSG_NOSIGNAL);
    if (n < 0) return errno == EAGAIN;
    at += static_cast<size_t>(n);
    limit -= static_cast<size_t>(n);
    if (static_cast<size_t>(n) < offered) return true;
  }
  return true;
}

int64_t endpoint::read_some(size_t limit) {
  if (session) {
    const int64_t n = tls_client::read(session, buf, std::min(limit, buffer_size));
    return n == tls_client::wants_output ? -1 : n;
  }
  const ssize_t n = recv(sock, buf, std::min(limit, buffer_size), 0);
  return n >= 0 ? n : errno == EAGAIN ? -1 : -2;
}

namespace {

constexpr uint64_t tick_ms = 10;
constexpr uint64_t end_takes_ms = 20000;

class listener final : public endpoint {
 public:
  using endpoint::endpoint;

  // Returns the port, or 0.
  int listen_anywhere() {
    sock = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    socklen_t length = sizeof(address);
    if (bind(sock, generic, length) != 0 || listen(sock, 1024) != 0) return 0;
    if (getsockname(sock, generic, &length) != 0) return 0;
    watch(EPOLLIN);
    return ntohs(address.sin_port);
  }

  void on_ready() override {
    int peer = -1;
    while ((peer = accept4(sock, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC)) >= 0)
      new upstream_link(run, peer);  // deletes itself
  }
};

uint64_t now_ms() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}

void make_clients(soak& run, std::list<client>& clients) {
  // Over TLS, many clients would leave too little of the line for fast uploads.
  const struct {
    habit ways;
    int count, over_tls;
  } crowd[] = {{habit::steady, 64, 4},  {habit::brief, 8, 2}, {habit::sluggish, 8, 4}, {habit::leaving, 4, 4},
               {habit::stranded, 2, 1}, {habit::heavy, 2, 1}, {habit::uploading, 0, 2}};
  uint64_t number = 0;
  for (const auto& some : crowd)
    for (int i = 0; i < (run.over_tls ? some.over_tls : some.count); i++)
      clients.emplace_back(run, some.ways, number++);
}

void print_counters(const soak& run, uint64_t start_ms, bool is_last) {
  printf("{\"seconds\": %.3f, \"requests\": %" PRIu64 ", \"bytes\": %" PRIu64 ", \"connections\": %" PRIu64
         ", \"left\": %" PRIu64 ", \"wrong\": %" PRIu64 ", \"errors\": %" PRIu64 ", \"last\": %s}\n",
         static_cast<double>(run.now_ms - start_ms) / 1000, run.requests, run.bytes, run.connections,
         run.left, run.wrong, run.errors, is_last ? "true" : "false");
  fflush(stdout);
}

void work(soak& run, std::list<client>& clients, uint64_t duration_ms, uint64_t goal) {
  const uint64_t start_ms = run.now_ms = now_ms();
  uint64_t last_tick_ms = 0, last_report_ms = start_ms, ended_ms = 0;
  for (;;) {
    epoll_event events[256];
    const int count = epoll_wait(run.epoll, events, 256, tick_ms);
    run.now_ms = now_ms();
    for (int i = 0; i < count; i++) static_cast<endpoint*>(events[i].data.ptr)->on_ready();
    if (!run.ending && (run.requests >= goal || run.now_ms - start_ms >= duration_ms)) {
      run.ending = true;
      ended_ms = run.now_ms;
    }
    if (run.now_ms - last_tick_ms < tick_ms) continue;
    last_tick_ms = run.now_ms;
    uint64_t open = run.links;
    for (client& one : clients) {
      one.tick();
      open += one.is_open();
    }
    if (run.ending && open == 0) break;
    if (run.ending && run.now_ms - ended_ms > end_takes_ms) {
      run.report(run.errors, "connections stay open at the end", nullptr, 0);
      break;
    }
    if (run.now_ms - last_report_ms >= 1000) {
      last_report_ms += 1000;
      print_counters(run, start_ms, false);
    }
  }
  print_counters(run, start_ms, true);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 5) return 1;
  soak run(strtoull(argv[1], nullptr, 10));
  run.wrong_reply = strtoull(argv[4], nullptr, 10);
  run.over_tls = argc > 5;
  if (run.over_tls && !tls_client::open_library()) return 1;
  run.epoll = epoll_create1(EPOLL_CLOEXEC);
  listener upstream(run);
  const int port = upstream.listen_anywhere();
  if (port == 0) return 1;
  printf("%d\n", port);
  fflush(stdout);
  if (scanf("%d", &run.mivo_port) != 1) return 1;
  std::list<client> clients;
  make_clients(run, clients);
  work(run, clients, strtoull(argv[2], nullptr, 10) * 1000, strtoull(argv[3], nullptr, 10));
  return 0;
}
