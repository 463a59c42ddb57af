// The replaced calls. The linker turns every call of NAME into __wrap_NAME; __real_NAME is the system's.

#include "tests/fuzz/network.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/select.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "net/connection.h"
#include "tests/fuzz/fuzz.h"

namespace network {

state& net() {
  static state s;
  return s;
}

void clear() {
  // A look-up in the same second of another conversation would be remembered in this one.
  const int64_t begin = net().begin + (net().begin == state().begin ? 1000000 : -1000000);
  net() = state();
  net().begin = net().now = begin;
}

int add_client(int port) {
  stream s;
  s.port = port;
  net().streams.push_back(s);
  const int index = static_cast<int>(net().streams.size()) - 1;
  net().waiting[port].push_back(index);
  return index;
}

void begin_turn() {
  net().calls = 0;
  for (stream& s : net().streams) s.window = s.rate;
}

void settle() {
  for (stream& s : net().streams) {
    if (s.outcome == late_established) s.outcome = established;
    if (s.outcome != late_refused) continue;
    s.outcome = refused;
    s.error = ECONNREFUSED;
  }
}

// Looks at a word at a time, because the sets are many and nearly empty.
std::vector<int> members(const fd_set* set) {
  std::vector<int> all;
  for (int first = 0; first < FD_SETSIZE; first += NFDBITS) {
    if (__FDS_BITS(set)[first / NFDBITS] == 0) continue;
    for (int fd = first; fd < first + NFDBITS; fd++) {
      if (FD_ISSET(fd, set)) all.push_back(fd);
    }
  }
  return all;
}

}  // namespace network

namespace {

using fuzz::expect;
using network::net;
using network::stream;

constexpr int64_t most_calls_of_a_stream = 300;  // in a turn; its bytes may go one by one

void count_call() {
  net().calls++;
  const auto streams = static_cast<int64_t>(net().streams.size());
  expect(net().calls < most_calls_of_a_stream * (streams + 4), "the calls of a turn are bounded");
}

bool fails(const char* name) {
  count_call();
  auto found = net().faults.find(name);
  if (found == net().faults.end()) return false;
  errno = found->second;
  net().faults.erase(found);
  return true;
}

int new_descriptor() {
  int fd = net().first_descriptor;
  while (net().open.count(fd)) fd++;
  return fd;
}

// The stream of a descriptor; null for a listening socket.
stream* find_stream(int fd) {
  auto found = net().open.find(fd);
  expect(found != net().open.end(), "only open descriptors are used");
  return found->second == network::none ? nullptr : &net().streams[static_cast<size_t>(found->second)];
}

stream& stream_of(int fd) {
  stream* s = find_stream(fd);
  expect(s != nullptr, "a listening socket carries no data");
  return *s;
}

bool is_under_way(const stream& s) {
  return s.outcome == network::late_established || s.outcome == network::late_refused ||
         s.outcome == network::never_established;
}

bool is_readable(int fd, const stream* s) {
  if (!s) return !net().waiting[net().ports[fd]].empty();
  return !is_under_way(*s) && (!s->inbox.empty() || s->has_ended || s->is_reset || s->error != 0 ||
                               s->outcome == network::refused);
}

bool is_writable(const stream* s) {
  return s && !is_under_way(*s) &&
         (s->window != 0 || s->is_reset || s->error != 0 || s->outcome == network::refused);
}

// An error is reported once, by whichever call comes first.
bool report_error(stream& s) {
  if (s.error == 0) return false;
  errno = s.error;
  s.error = 0;
  return true;
}

// The stream of the client that the program is reading from.
int selected_client() {
  const connection* conn = connection::selected();
  expect(conn != nullptr && net().open.count(conn->sock) == 1, "upstreams are opened for a client");
  return net().open[conn->sock];
}

// A request needs an upstream, so the client has left its earlier upstream. The network notices this when the
// name is looked up, which may fail. If the name is remembered, it notices this when the new socket is made.
void leave_upstream() {
  stream& client = net().streams[static_cast<size_t>(selected_client())];
  client.last_upstream = network::none;
  // The connection closes after what is being sent, even if another request comes now. That request is lost,
  // as if it had come a moment later.
  if (!connection::selected()->keep) client.is_disturbed = true;
}

// The resolver's list of one address is one block, as the C library's is.
struct resolved {
  addrinfo info;
  sockaddr_in address;
};

}  // namespace

extern "C" {

int __real_close(int fd);
int __real_fcntl(int fd, int command, ...);

int __wrap_socket(int, int type, int) {
  if ((type & SOCK_NONBLOCK) != 0) leave_upstream();
  if (fails("socket")) return -1;
  const int fd = new_descriptor();
  net().open[fd] = network::none;
  return fd;
}

int __wrap_bind(int fd, const sockaddr* address, socklen_t) {
  expect(!find_stream(fd), "a fresh socket is bound");
  if (fails("bind")) return -1;
  net().ports[fd] = ntohs(reinterpret_cast<const sockaddr_in*>(address)->sin_port);
  return 0;
}

int __wrap_listen(int fd, int) {
  expect(!find_stream(fd), "a fresh socket listens");
  return fails("listen") ? -1 : 0;
}

int __wrap_accept4(int fd, sockaddr* address, socklen_t* length, int flags) {
  expect(!find_stream(fd), "a listening socket accepts");
  expect((flags & SOCK_NONBLOCK) != 0, "clients do not block");
  if (fails("accept4")) {
    net().is_disturbed = true;
    return -1;
  }
  std::vector<int>& waiting = net().waiting[net().ports[fd]];
  expect(!waiting.empty(), "accept4() is called when somebody waits");
  const int index = waiting.front();
  waiting.erase(waiting.begin());
  const int client = new_descriptor();
  net().open[client] = index;
  net().streams[static_cast<size_t>(index)].fd = client;
  sockaddr_in peer = {};
  peer.sin_family = AF_INET;
  peer.sin_addr.s_addr = htonl(index % 2 ? INADDR_LOOPBACK : 0x0A000000u + static_cast<uint32_t>(index));
  peer.sin_port = htons(static_cast<uint16_t>(40000 + index));
  memcpy(address, &peer, std::min<size_t>(*length, sizeof(peer)));
  return client;
}

int __wrap_connect(int fd, const sockaddr* address, socklen_t) {
  expect(!find_stream(fd), "a fresh socket connects");
  if (fails("connect")) return -1;
  stream s;
  s.fd = fd;
  s.port = ntohs(reinterpret_cast<const sockaddr_in*>(address)->sin_port);
  s.is_upstream = true;
  s.owner = selected_client();
  s.outcome = net().next_outcome;
  for (const stream& other : net().streams) s.number += other.is_upstream && other.owner == s.owner;
  const int index = static_cast<int>(net().streams.size());
  if (s.outcome != network::refused) net().streams[static_cast<size_t>(s.owner)].last_upstream = index;
  net().streams.push_back(s);
  net().open[fd] = index;
  if (s.outcome == network::established) return 0;
  errno = s.outcome == network::refused ? ECONNREFUSED : EINPROGRESS;
  return -1;
}

ssize_t __wrap_recv(int fd, void* buf, size_t len, int) {
  stream& s = stream_of(fd);
  if (fails("recv")) return -1;
  if (report_error(s)) return -1;
  if (s.is_reset || s.outcome == network::refused) return 0;
  size_t n = std::min(len, s.inbox.size());
  if (net().is_trickling) n = std::min<size_t>(n, 1);
  if (n == 0 && !s.has_ended) {
    errno = EAGAIN;
    return -1;
  }
  memcpy(buf, s.inbox.data(), n);
  for (size_t i = 0; i < n; i++) s.stamped_taken += (s.inbox[i] & 0x80) != 0;
  if (!s.is_upstream) s.taken.append(s.inbox, 0, n);
  s.inbox.erase(0, n);
  return static_cast<ssize_t>(n);
}

ssize_t __wrap_send(int fd, const void* buf, size_t len, int) {
  stream& s = stream_of(fd);
  const connection* conn = connection::selected();
  const char* bytes = static_cast<const char*>(buf);
  expect(
      conn && conn->sock == fd && bytes >= conn->out && bytes + len <= conn->out + connection::out_capacity,
      "a connection sends from its own buffer");
  if (fails("send")) return -1;
  if (report_error(s)) return -1;
  if (s.is_reset || s.outcome == network::refused) {
    errno = EPIPE;
    return -1;
  }
  if (s.window == 0 || is_under_way(s)) {
    errno = EAGAIN;
    return -1;
  }
  size_t n = s.window < 0 ? len : std::min(len, static_cast<size_t>(s.window));
  if (net().is_trickling) {
    n = std::min<size_t>(n, 1);
    if (s.window < 0) s.window = 64;
  }
  if (s.window > 0) s.window -= static_cast<int64_t>(n);
  s.received.append(bytes, n);
  return static_cast<ssize_t>(n);
}

int __wrap_select(int count, fd_set* readable, fd_set* writable, fd_set* errors, timeval* wait) {
  expect(count == FD_SETSIZE && wait->tv_sec == 0 && (wait->tv_usec == 100000 || wait->tv_usec == 0),
         "a turn waits 100 ms, or not at all");
  int bits = 0;
  for (const fd_set* set : {readable, writable, errors}) {
    for (int fd : network::members(set))
      expect(net().open.count(fd) == 1, "select() gets open descriptors only");
  }
  if (fails("select")) {
    net().is_disturbed = net().is_disturbed || errno != EINTR;
    return -1;
  }
  for (const auto& entry : net().open) {
    const int fd = entry.first;
    if (fd >= FD_SETSIZE) break;
    const stream* s = find_stream(fd);
    auto keep = [&](fd_set* set, bool is_ready) {
      if (!FD_ISSET(fd, set)) return;
      if (!is_ready) FD_CLR(fd, set);
      bits += is_ready;
    };
    keep(readable, is_readable(fd, s));
    keep(writable, is_writable(s));
    keep(errors, s && s->is_urgent);
  }
  net().ready = bits;
  return bits;
}

int __wrap_close(int fd) {
  if (!network::is_ours(fd)) return __real_close(fd);
  if (stream* s = find_stream(fd)) {
    s->fd = network::none;
    s->is_closed = true;
  }
  net().open.erase(fd);
  return 0;
}

int __wrap_setsockopt(int fd, int, int, const void*, socklen_t) {
  find_stream(fd);
  count_call();
  return 0;
}

int __wrap_getsockopt(int fd, int, int name, void* value, socklen_t* length) {
  const stream* s = find_stream(fd);
  if (fails("getsockopt")) return -1;
  expect(name == TCP_INFO && *length >= sizeof(tcp_info), "the state of a connection is asked for");
  auto* info = static_cast<tcp_info*>(value);
  info->tcpi_state = !s || s->outcome == network::refused ? TCP_CLOSE
                     : s->outcome == network::established ? TCP_ESTABLISHED
                                                          : TCP_SYN_SENT;
  return 0;
}

int __wrap_fcntl(int fd, int command, long argument) {
  if (!network::is_ours(fd)) return __real_fcntl(fd, command, argument);
  find_stream(fd);
  return 0;
}

int __wrap_getaddrinfo(const char*, const char* service, const addrinfo* hints, addrinfo** out) {
  const bool is_upstream = (hints->ai_flags & AI_PASSIVE) == 0;
  if (is_upstream) leave_upstream();
  if (fails("getaddrinfo")) return EAI_AGAIN;
  auto* r = static_cast<resolved*>(calloc(1, sizeof(resolved)));  // freed by freeaddrinfo()
  r->address.sin_family = AF_INET;
  r->address.sin_port = htons(static_cast<uint16_t>(strtol(service, nullptr, 10)));
  r->info.ai_family = AF_INET;
  r->info.ai_socktype = SOCK_STREAM;
  r->info.ai_protocol = IPPROTO_TCP;
  r->info.ai_addr = reinterpret_cast<sockaddr*>(&r->address);
  r->info.ai_addrlen = sizeof(r->address);
  *out = &r->info;
  return 0;
}

void __wrap_freeaddrinfo(addrinfo* list) {
  free(list);
}

// The host has no adapters, because there is nothing about them to fuzz.
int __wrap_getifaddrs(ifaddrs** out) {
  *out = nullptr;
  return 0;
}

time_t __wrap_time(time_t* out) {
  if (out) *out = net().now;
  return net().now;
}

}  // extern "C"
