#include "tests/support/faults.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace faults {

// Nothing here that has a destructor is ever deleted: the leak checker calls fcntl() after the end of all
// statics. If the map were gone then, the checker would wait for its own lock for ever and never report the
// leak.

std::map<std::string, fault>& of() {
  static auto& map = *new std::map<std::string, fault>;
  return map;
}

std::map<std::string, int>& calls() {
  static auto& map = *new std::map<std::string, int>;
  return map;
}

size_t& most_bytes() {
  static size_t limit = 0;
  return limit;
}

bool& suspended() {
  static bool flag = false;
  return flag;
}

int64_t& longest_wait_us() {
  static int64_t limit = 0;
  return limit;
}

int64_t& clock_offset() {
  static int64_t offset = 0;
  return offset;
}

int64_t& frozen_clock() {
  static int64_t seconds = 0;
  return seconds;
}

size_t& page_size() {
  static size_t size = 0;
  return size;
}

std::vector<std::string>& resolved() {
  static auto& addresses = *new std::vector<std::string>;
  return addresses;
}

std::vector<std::string>& adapters() {
  static auto& addresses = *new std::vector<std::string>;
  return addresses;
}

int& outgoing_port() {
  static int port = 0;
  return port;
}

std::string& last_node() {
  static auto& node = *new std::string;
  return node;
}

select_call& last_select() {
  static select_call call;
  return call;
}

void clear() {
  of().clear();
  calls().clear();
  most_bytes() = 0;
  suspended() = false;
  longest_wait_us() = 0;
  clock_offset() = 0;
  frozen_clock() = 0;
  page_size() = 0;
  resolved().clear();
  adapters().clear();
  outgoing_port() = 0;
  last_node().clear();
  last_select() = {};
}

void fail_next_look_up(int code) {
  static int64_t times = 0;
  of()["getaddrinfo"] = {0, 1, 0, code};
  clock_offset() -= 1000 * ++times;  // not forward, because connections would time out
}

bool fails(const char* name, int& result) {
  if (suspended()) return false;
  calls()[name]++;
  auto found = of().find(name);
  if (found == of().end()) return false;
  fault& f = found->second;
  if (f.skip > 0) {
    f.skip--;
    return false;
  }
  if (f.times <= 0) return false;
  if (f.gap > 0)
    f.skip = f.gap;
  else
    f.times--;
  errno = f.error;
  result = f.result;
  return true;
}

}  // namespace faults

namespace {

using faults::fails;

template <class F>
F real(F, const char* name) {
  return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

size_t limited(size_t len) {
  const bool is_limited = faults::most_bytes() != 0 && !faults::suspended();
  return is_limited ? std::min(len, faults::most_bytes()) : len;
}

size_t whole_pages(size_t length) {
  const size_t page = faults::page_size();
  return page == 0 ? length : (length + page - 1) / page * page;
}

size_t bytes_to_next_page(const void* place) {
  const auto at = static_cast<size_t>(reinterpret_cast<uintptr_t>(place));
  return whole_pages(at) - at;
}

// Whether a pretended page begins there. If not, sets `result` and errno as the system does when it refuses.
bool is_page(const void* place, int& result) {
  if (bytes_to_next_page(place) == 0) return true;
  errno = EINVAL;
  result = -1;
  return false;
}

// False while libraries are still set up.
bool has_started = false;

__attribute__((constructor)) void note_start() {
  has_started = true;
}

// Not a part of madvise(), which is compiled without the sanitizer.
int advise_or_fail(void* place, size_t length, int advice) {
  int result = 0;
  if (fails("madvise", result) || !is_page(place, result)) return result;
  static auto next = real(&madvise, "madvise");
  return next(place, whole_pages(length), advice);
}

// Turns a text into a socket address. A text that is neither IPv4 nor IPv6 gives the family AF_UNIX.
sockaddr_storage parse_address(const std::string& text, uint16_t port) {
  sockaddr_storage address = {};
  auto* v4 = reinterpret_cast<sockaddr_in*>(&address);
  auto* v6 = reinterpret_cast<sockaddr_in6*>(&address);
  if (inet_pton(AF_INET, text.c_str(), &v4->sin_addr) == 1) {
    v4->sin_family = AF_INET;
    v4->sin_port = htons(port);
  } else if (inet_pton(AF_INET6, text.c_str(), &v6->sin6_addr) == 1) {
    v6->sin6_family = AF_INET6;
    v6->sin6_port = htons(port);
  } else {
    address.ss_family = AF_UNIX;
  }
  return address;
}

// The C library's functions free both lists, so they are laid out as the C library does it: each addrinfo is
// one block with its address, and a whole list of adapters is one block.
addrinfo* resolved_list(const char* service, const addrinfo& hints) {
  struct entry {
    addrinfo info;
    sockaddr_storage address;
  };
  addrinfo* list = nullptr;
  for (size_t i = faults::resolved().size(); i-- > 0;) {
    const sockaddr_storage address =
        parse_address(faults::resolved()[i], static_cast<uint16_t>(atoi(service)));
    if (hints.ai_family != AF_UNSPEC && hints.ai_family != address.ss_family) continue;
    auto* e = static_cast<entry*>(calloc(1, sizeof(entry)));
    e->address = address;
    e->info.ai_family = e->address.ss_family;
    e->info.ai_socktype = SOCK_STREAM;
    e->info.ai_protocol = IPPROTO_TCP;
    e->info.ai_addr = reinterpret_cast<sockaddr*>(&e->address);
    e->info.ai_addrlen = e->info.ai_family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
    e->info.ai_next = list;
    list = &e->info;
  }
  return list;
}

ifaddrs* adapter_list() {
  struct entry {
    ifaddrs adapter;
    sockaddr_storage address;
  };
  size_t count = faults::adapters().size();
  auto* entries = static_cast<entry*>(calloc(count, sizeof(entry)));
  for (size_t i = 0; i < count; i++) {
    const std::string& text = faults::adapters()[i];
    entries[i].address = parse_address(text, 0);
    if (!text.empty()) entries[i].adapter.ifa_addr = reinterpret_cast<sockaddr*>(&entries[i].address);
    if (i + 1 < count) entries[i].adapter.ifa_next = &entries[i + 1].adapter;
  }
  return &entries[0].adapter;
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
  if (faults::outgoing_port() != 0 && address->sa_family == AF_INET) {
    const sockaddr_storage own = parse_address("127.0.0.1", static_cast<uint16_t>(faults::outgoing_port()));
    const int on = 1;  // the port is bound already, to keep it for this process
    setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    bind(sock, reinterpret_cast<const sockaddr*>(&own), sizeof(sockaddr_in));
  }
  static auto next = real(&connect, "connect");
  return next(sock, address, length);
}

int select(int count, fd_set* r, fd_set* w, fd_set* e, timeval* wait) {
  int result = 0;
  faults::last_select() = {count, wait->tv_sec * 1000000 + wait->tv_usec};
  if (fails("select", result)) return result;
  static auto next = real(&select, "select");
  timeval shorter = {0, static_cast<suseconds_t>(faults::longest_wait_us())};
  return next(count, r, w, e, faults::longest_wait_us() ? &shorter : wait);
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

int close(int sock) {
  int result = 0;
  static auto next = real(&close, "close");
  if (!fails("close", result)) return next(sock);
  const int error = errno;
  next(sock);
  errno = error;
  return result;
}

// Every command that is used here takes an int or no argument.
int fcntl(int sock, int command, ...) {
  int result = 0;
  if (fails("fcntl", result)) return result;
  va_list arguments;
  va_start(arguments, command);
  const int argument = va_arg(arguments, int);
  va_end(arguments);
  static auto next = real(&fcntl, "fcntl");
  return next(sock, command, argument);
}

int setsockopt(int sock, int level, int name, const void* value, socklen_t length) noexcept {
  int result = 0;
  if (fails("setsockopt", result)) return result;
  static auto next = real(&setsockopt, "setsockopt");
  return next(sock, level, name, value, length);
}

int getsockopt(int sock, int level, int name, void* value, socklen_t* length) noexcept {
  int result = 0;
  if (fails("getsockopt", result)) return result;
  static auto next = real(&getsockopt, "getsockopt");
  return next(sock, level, name, value, length);
}

int getaddrinfo(const char* node, const char* service, const addrinfo* hints, addrinfo** out) {
  int result = 0;
  faults::last_node() = node ? node : "";
  if (fails("getaddrinfo", result)) return result;
  if (!faults::resolved().empty()) {
    *out = resolved_list(service, *hints);
    return 0;
  }
  static auto next = real(&getaddrinfo, "getaddrinfo");
  return next(node, service, hints, out);
}

int getifaddrs(ifaddrs** out) noexcept {
  int result = 0;
  if (fails("getifaddrs", result)) return result;
  if (!faults::adapters().empty()) {
    *out = adapter_list();
    return 0;
  }
  static auto next = real(&getifaddrs, "getifaddrs");
  return next(out);
}

int getnameinfo(const sockaddr* address, socklen_t length, char* host, socklen_t host_length, char* service,
                socklen_t service_length, int flags) {
  int result = 0;
  if (fails("getnameinfo", result)) return result;
  static auto next = real(&getnameinfo, "getnameinfo");
  return next(address, length, host, host_length, service, service_length, flags);
}

#if __GLIBC_PREREQ(2, 33)
int stat(const char* path, struct stat* status) noexcept {
  int result = 0;
  if (fails("stat", result)) return result;
  static auto next = reinterpret_cast<int (*)(const char*, struct stat*)>(dlsym(RTLD_NEXT, "stat"));
  return next(path, status);
}
#else  // stat() is inline and calls this one
int __xstat(int version, const char* path, struct stat* status) noexcept {
  int result = 0;
  if (fails("stat", result)) return result;
  static auto next = real(&__xstat, "__xstat");
  return next(version, path, status);
}
#endif

FILE* fopen(const char* path, const char* mode) {
  int result = 0;
  if (fails("fopen", result)) return nullptr;
  static auto next = real(&fopen, "fopen");
  return next(path, mode);
}

void* mmap(void* place, size_t length, int protection, int flags, int file, off_t offset) noexcept {
  int result = 0;
  if (fails("mmap", result)) return MAP_FAILED;
  static auto next = real(&mmap, "mmap");
  if (faults::page_size() == 0) return next(place, length, protection, flags, file, offset);
  // One page more than asked for is mapped, so that a pretended page begins in it. The rest stays unused.
  void* mapped = next(place, whole_pages(length) + faults::page_size(), protection, flags, file, offset);
  return mapped == MAP_FAILED ? mapped : static_cast<char*>(mapped) + bytes_to_next_page(mapped);
}

int munmap(void* place, size_t length) noexcept {
  int result = 0;
  if (fails("munmap", result) || !is_page(place, result)) return result;
  static auto next = real(&munmap, "munmap");
  return next(place, whole_pages(length));
}

// The address sanitizer of g++ 10 calls this function for its own memory before instrumented code may run.
__attribute__((no_sanitize("address"))) int madvise(void* place, size_t length, int advice) noexcept {
  if (!has_started) return static_cast<int>(syscall(SYS_madvise, place, length, advice));
  return advise_or_fail(place, length, advice);
}

long sysconf(int name) noexcept {
  if (name == _SC_PAGESIZE && faults::page_size() != 0) return static_cast<long>(faults::page_size());
  static auto next = real(&sysconf, "sysconf");
  return next(name);
}

time_t time(time_t* out) noexcept {
  static auto next = real(&time, "time");
  time_t now = (faults::frozen_clock() ? faults::frozen_clock() : next(nullptr)) + faults::clock_offset();
  if (out) *out = now;
  return now;
}

}  // extern "C"
