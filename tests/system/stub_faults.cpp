// Preloaded into the program: MIVO_STUB_FAULT, "call first times errno", makes calls of a system function
// fail, from call number `first` on, `times` times. Every line on standard output is written at once.

#include <dlfcn.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

struct fault {
  char call[32];
  int first;
  int times;
  int error;
  int uses;
};

fault the_fault;

bool fails(const char* call) {
  fault& f = the_fault;
  if (strcmp(f.call, call) != 0) return false;
  f.uses++;
  if (f.uses < f.first || f.uses >= f.first + f.times) return false;
  errno = f.error;
  return true;
}

template <class F>
F real(F, const char* name) {
  return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

// The sanitizer starts earlier, without an environment. Its calls do not fail.
__attribute__((constructor)) void prepare() {
  fault& f = the_fault;
  if (const char* text = getenv("MIVO_STUB_FAULT"))
    sscanf(text, "%31s %d %d %d", f.call, &f.first, &f.times, &f.error);
  setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
}

}  // namespace

extern "C" {

int socket(int domain, int type, int protocol) noexcept {
  static auto next = real(&socket, "socket");
  return fails("socket") ? -1 : next(domain, type, protocol);
}

int bind(int sock, const sockaddr* address, socklen_t length) noexcept {
  static auto next = real(&bind, "bind");
  return fails("bind") ? -1 : next(sock, address, length);
}

int listen(int sock, int backlog) noexcept {
  static auto next = real(&listen, "listen");
  return fails("listen") ? -1 : next(sock, backlog);
}

int accept4(int sock, sockaddr* address, socklen_t* length, int flags) {
  static auto next = real(&accept4, "accept4");
  return fails("accept4") ? -1 : next(sock, address, length, flags);
}

int connect(int sock, const sockaddr* address, socklen_t length) {
  static auto next = real(&connect, "connect");
  return fails("connect") ? -1 : next(sock, address, length);
}

int select(int count, fd_set* r, fd_set* w, fd_set* e, timeval* wait) {
  static auto next = real(&select, "select");
  return fails("select") ? -1 : next(count, r, w, e, wait);
}

int getaddrinfo(const char* node, const char* service, const addrinfo* hints, addrinfo** out) {
  static auto next = real(&getaddrinfo, "getaddrinfo");
  return fails("getaddrinfo") ? EAI_AGAIN : next(node, service, hints, out);
}

int getifaddrs(ifaddrs** out) noexcept {
  static auto next = real(&getifaddrs, "getifaddrs");
  return fails("getifaddrs") ? -1 : next(out);
}

int getrlimit(__rlimit_resource_t resource, rlimit* limit) noexcept {
  static auto next = real(&getrlimit, "getrlimit");
  return fails("getrlimit") ? -1 : next(resource, limit);
}

int setrlimit(__rlimit_resource_t resource, const rlimit* limit) noexcept {
  static auto next = real(&setrlimit, "setrlimit");
  return fails("setrlimit") ? -1 : next(resource, limit);
}

int stat(const char* path, struct stat* status) noexcept {
  static auto next = reinterpret_cast<int (*)(const char*, struct stat*)>(dlsym(RTLD_NEXT, "stat"));
  return fails("stat") ? -1 : next(path, status);
}

FILE* fopen(const char* path, const char* mode) {
  static auto next = real(&fopen, "fopen");
  return fails("fopen") ? nullptr : next(path, mode);
}

void* dlopen(const char* path, int flags) noexcept {
  static auto next = real(&dlopen, "dlopen");
  return fails("dlopen") ? nullptr : next(path, flags);
}

// Only mappings for connections count; each has room for eight connections. The sanitizer maps memory before
// dlsym() works, so this function makes the system call directly.
void* mmap(void* place, size_t length, int protection, int flags, int file, off_t offset) noexcept {
  const bool is_counted = (flags & MAP_NORESERVE) && length > (8 << 20) && length < (9 << 20);
  if (is_counted && fails("mmap")) return MAP_FAILED;
  return reinterpret_cast<void*>(syscall(SYS_mmap, place, length, protection, flags, file, offset));
}

}  // extern "C"
