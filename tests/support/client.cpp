#include "tests/support/client.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <utility>

namespace {

sockaddr_in loopback(int port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<uint16_t>(port));
  return address;
}

int bound_port(int sock) {
  sockaddr_in address = {};
  socklen_t length = sizeof(address);
  getsockname(sock, reinterpret_cast<sockaddr*>(&address), &length);
  return ntohs(address.sin_port);
}

// A socket that is bound to a free port. A shared port can also be bound by others that share, as servers do.
int bind_free_port(bool is_shared) {
  const int sock = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int on = is_shared;
  setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  setsockopt(sock, SOL_SOCKET, SO_REUSEPORT, &on, sizeof(on));
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  bind(sock, reinterpret_cast<sockaddr*>(&address), sizeof(address));
  return sock;
}

}  // namespace

client::client(int port) {
  sockaddr_in address = loopback(port);
  int sock = socket(AF_INET, SOCK_STREAM, 0);
  if (connect(sock, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
    ::close(sock);
    return;
  }
  fcntl(sock, F_SETFL, O_NONBLOCK);
  sock_ = sock;
}

client client::from_socket(int sock) {
  client c;
  c.sock_ = sock;
  if (sock >= 0) fcntl(sock, F_SETFL, O_NONBLOCK);
  return c;
}

client::client(client&& other) noexcept
    : sock_(std::exchange(other.sock_, -1)),
      closed_(other.closed_),
      reset_(other.reset_),
      received_(std::move(other.received_)) {}

client::~client() {
  close();
}

int client::local_port() const {
  return bound_port(sock_);
}

size_t client::send(const std::string& bytes) {
  ssize_t n = ::send(sock_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
  return n < 0 ? 0 : static_cast<size_t>(n);
}

bool client::poll() {
  char buf[65536];
  while (!closed_) {
    ssize_t n = recv(sock_, buf, sizeof(buf), 0);
    if (n > 0) {
      received_.append(buf, static_cast<size_t>(n));
    } else if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
      break;
    } else {
      closed_ = true;
      reset_ = n < 0;
    }
  }
  return !closed_;
}

void client::close() {
  if (sock_ >= 0) ::close(sock_);
  sock_ = -1;
}

void client::close_with_reset() {
  linger now = {1, 0};
  setsockopt(sock_, SOL_SOCKET, SO_LINGER, &now, sizeof(now));
  close();
}

void client::shutdown_write() {
  shutdown(sock_, SHUT_WR);
}

listener::listener(int port) {
  sock_ = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
  int on = 1;
  setsockopt(sock_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  sockaddr_in address = loopback(port);
  bind(sock_, reinterpret_cast<sockaddr*>(&address), sizeof(address));
  ::listen(sock_, 128);
  port_ = bound_port(sock_);
}

listener::~listener() {
  ::close(sock_);
}

client listener::accept() {
  return client::from_socket(::accept(sock_, nullptr, nullptr));
}

taken_port::taken_port(bool is_shared) : sock_(bind_free_port(is_shared)), port_(bound_port(sock_)) {}

taken_port::~taken_port() {
  ::close(sock_);
}

namespace {

// Ports that stay bound as long as the process lives, so that no other process gets them, however many run.
// Nobody listens on them. Their sockets exist before the first test counts its descriptors.
struct reserved_ports {
  int ports[16];
  int next = 0;

  reserved_ports() {
    for (int& port : ports) port = bound_port(bind_free_port(true));
  }
} reserved;

}  // namespace

int free_port() {
  return reserved.ports[reserved.next++ % 16];
}

bool repeat_until(const std::function<void()>& step, const std::function<bool()>& done) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    step();
  }
  return true;
}
