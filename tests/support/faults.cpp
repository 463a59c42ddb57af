#include "tests/support/faults.h"

#include <dlfcn.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <ctime>

namespace faults {

std::map<std::string, fault>& of() {
  static std::map<std::string, fault> map;
  return map;
}

std::map<std::string, int>& calls() {
  static std::map<std::string, int> map;
  return map;
}

size_t& most_bytes() {
  static size_t limit = 0;
  return limit;
}

int64_t& clock_offset() {
  static int64_t offset = 0;
  return offset;
}

void clear() {
  of().clear();
  calls().clear();
  most_bytes() = 0;
  clock_offset() = 0;
}

}  // namespace faults

namespace {

// Counts a use; true when it is to fail, with errno set and the value to return in `result`.
bool fails(const char* name, int& result) {
  faults::calls()[name]++;
  auto found = faults::of().find(name);
  if (found == faults::of().end()) return false;
  faults::fault& f = found->second;
  if (f.skip > 0) {
    f.skip--;
    return false;
  }
  if (f.times <= 0) return false;
  f.times--;
  errno = f.error;
  result = f.result;
  return true;
}

template <class F>
F real(F, const char* name) {
  return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

size_t limited(size_t len) {
  return faults::most_bytes() ? std::min(len, faults::most_bytes()) : len;
}

}  // namespace

extern "C" {

int socket(int domain, int type, int protocol) noexcept {
  int result = 0;
  if (fails("socket", result)) return result;
  static auto next = real(&socket, "socket");
  return next(domain, type, protocol);
}

int bind(int sock, const sockaddr* address, socklen_t length) noexcept {
  int result = 0;
  if (fails("bind", result)) return result;
  static auto next = real(&bind, "bind");
  return next(sock, address, length);
}

int listen(int sock, int backlog) noexcept {
  int result = 0;
  if (fails("listen", result)) return result;
  static auto next = real(&listen, "listen");
  return next(sock, backlog);
}

int accept4(int sock, sockaddr* address, socklen_t* length, int flags) {
  int result = 0;
  if (fails("accept4", result)) return result;
  static auto next = real(&accept4, "accept4");
  return next(sock, address, length, flags);
}

int connect(int sock, const sockaddr* address, socklen_t length) {
  int result = 0;
  if (fails("connect", result)) return result;
  static auto next = real(&connect, "connect");
  return next(sock, address, length);
}

int select(int count, fd_set* r, fd_set* w, fd_set* e, timeval* wait) {
  int result = 0;
  if (fails("select", result)) return result;
  static auto next = real(&select, "select");
  return next(count, r, w, e, wait);
}

ssize_t recv(int sock, void* buf, size_t len, int flags) {
  int result = 0;
  if (fails("recv", result)) return result;
  static auto next = real(&recv, "recv");
  return next(sock, buf, limited(len), flags);
}

ssize_t send(int sock, const void* buf, size_t len, int flags) {
  int result = 0;
  if (fails("send", result)) return result;
  static auto next = real(&send, "send");
  return next(sock, buf, limited(len), flags);
}

int getaddrinfo(const char* node, const char* service, const addrinfo* hints, addrinfo** out) {
  int result = 0;
  if (fails("getaddrinfo", result)) return result;
  static auto next = real(&getaddrinfo, "getaddrinfo");
  return next(node, service, hints, out);
}

int getifaddrs(ifaddrs** out) noexcept {
  int result = 0;
  if (fails("getifaddrs", result)) return result;
  static auto next = real(&getifaddrs, "getifaddrs");
  return next(out);
}

time_t time(time_t* out) noexcept {
  static auto next = real(&time, "time");
  time_t now = next(nullptr) + faults::clock_offset();
  if (out) *out = now;
  return now;
}

}  // extern "C"
