// The part of sockets that opens TCP sockets: listen() and connect().

#include <arpa/inet.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "net/name_memory.h"
#include "net/sockets.h"

namespace sockets {

namespace {

constexpr int backlog = 128;

// How many bytes of an upstream's response the kernel may buffer. Without a limit its buffer grows to several
// MiB. The next turns would read all of this into the pipe, even if the client takes nothing.
constexpr int upstream_receive_buffer = 512 * 1024;

void set_option(int sock, int level, int name, int value) {
  setsockopt(sock, level, name, &value, sizeof(value));
}

// Without TCP_NODELAY, the second of two small packets waits 40 ms for the peer's delayed acknowledgement.
void send_at_once(int sock) {
  set_option(sock, IPPROTO_TCP, TCP_NODELAY, 1);
}

// Keepalive finds peers that vanished without closing, after 60 + 4 * 15 s. Relayed connections have no
// time-out that would find them (connection::timeout is -1).
void probe_silent_peers(int sock) {
  set_option(sock, SOL_SOCKET, SO_KEEPALIVE, 1);
  set_option(sock, IPPROTO_TCP, TCP_KEEPIDLE, 60);
  set_option(sock, IPPROTO_TCP, TCP_KEEPINTVL, 15);
  set_option(sock, IPPROTO_TCP, TCP_KEEPCNT, 4);
}

void set_nonblocking(int sock) {
  fcntl(sock, F_SETFL, fcntl(sock, F_GETFL) | O_NONBLOCK);
}

// Opens a socket for an address, with a descriptor that fits into the sets. Returns -1 when it cannot.
// `flags` may be SOCK_NONBLOCK.
int open_socket(const addrinfo& address, int flags) {
  int sock = socket(address.ai_family, address.ai_socktype | flags, address.ai_protocol);
  if (sock == -1 || fits(sock)) return sock;
  ::close(sock);
  return -1;
}

// Prints the IPv4 addresses of the adapters, one a line. It builds no string: a server that restarts while it
// serves must not fail because memory is short.
void print_adapters() {
  ifaddrs* adapters = nullptr;
  if (getifaddrs(&adapters) != 0) adapters = nullptr;
  const char* between = "";
  for (ifaddrs* a = adapters; a; a = a->ifa_next) {
    char host[64];
    if (!a->ifa_addr || a->ifa_addr->sa_family != AF_INET) continue;
    if (getnameinfo(a->ifa_addr, sizeof(sockaddr_in), host, sizeof(host), nullptr, 0, NI_NUMERICHOST) != 0)
      continue;
    printf("%s%s", between, host);
    between = "\n";
  }
  printf("\n");
  if (adapters) freeifaddrs(adapters);
}

void print_binding(bool localhost_only, int port) {
  if (localhost_only) {
    printf("Binding to port %d on localhost only\n", port);
  } else {
    printf("Binding to port %d on all adapters:\n", port);
    print_adapters();
  }
}

// Closes a socket that cannot listen, and sets it to -1. Returns false, which listen() then returns.
bool give_up(int& sock) {
  ::close(sock);
  sock = -1;
  return false;
}

// Opens a socket for one address, binds it and makes it listen. The rest of the contract is that of listen().
bool listen_on(int& sock, const addrinfo& address) {
  sock = open_socket(address, 0);
  if (sock == -1) {
    printf("socket() failed\n");
    return false;
  }
  set_option(sock, SOL_SOCKET, SO_REUSEADDR, 1);
  set_option(sock, SOL_SOCKET, SO_REUSEPORT, 1);
  send_at_once(sock);  // accepted sockets inherit this and the keepalive, which saves the calls there
  probe_silent_peers(sock);
  int bound = bind(sock, address.ai_addr, address.ai_addrlen);
  if (bound == -1) {
    // gai_strerror(-1) is not the text of errno. It stays because people search for this line.
    printf("bind() failed: %d %s\n", bound, gai_strerror(bound));
    printf("Check that the port isn't already taken.\n");
    printf("This can be done with 'netstat -an' on windows/mac/linux.\n");
    return give_up(sock);
  }
  if (::listen(sock, backlog) == -1) {
    printf("listen() failed\n");
    return give_up(sock);
  }
  set_nonblocking(sock);
  return true;
}

// An address as text, or a text that says that its family is unknown.
std::string address_text(const addrinfo& address) {
  char text[46];
  if (address.ai_family == AF_INET)
    return inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in*>(address.ai_addr)->sin_addr, text, 16);
  if (address.ai_family == AF_INET6)
    return inet_ntop(AF_INET6, &reinterpret_cast<sockaddr_in6*>(address.ai_addr)->sin6_addr, text, 46);
  return "(Unknown address family)";
}

// Whether the peer is on this machine. There it cannot vanish without closing: a process that ends closes its
// sockets.
bool is_loopback(const addrinfo& address) {
  if (address.ai_family != AF_INET) return false;
  const in_addr_t ip = reinterpret_cast<const sockaddr_in*>(address.ai_addr)->sin_addr.s_addr;
  return ntohl(ip) >> IN_CLASSA_NSHIFT == IN_LOOPBACKNET;
}

// A socket for an upstream; -1 when there is none.
int open_upstream_socket(const addrinfo& address, int flags) {
  int sock = open_socket(address, flags);
  if (sock == -1) return -1;
  set_option(sock, SOL_SOCKET, SO_RCVBUF, upstream_receive_buffer);
  send_at_once(sock);
  if (!is_loopback(address)) probe_silent_peers(sock);
  return sock;
}

// The first address from `a` on that is not IPv6; null when there is none. Upstreams are not reached over
// IPv6.
const addrinfo* skip_ipv6(const addrinfo* a) {
  while (a && a->ai_family == AF_INET6) a = a->ai_next;
  return a;
}

// The upstream's port may be in the range for outgoing connections. If nobody listens on it, the system may
// choose the same port as the local port of the connection to it. The connection is then its own peer (RFC
// 9293, section 3.5, simultaneous open).
bool is_connected_to_itself(int sock, const addrinfo& address) {
  sockaddr_in own = {};
  socklen_t length = sizeof(own);
  if (address.ai_family != AF_INET || getsockname(sock, reinterpret_cast<sockaddr*>(&own), &length) != 0)
    return false;
  const auto* peer = reinterpret_cast<const sockaddr_in*>(address.ai_addr);
  return own.sin_port == peer->sin_port && own.sin_addr.s_addr == peer->sin_addr.s_addr;
}

// Calls connect(). A connection to itself counts as refused; it is undone, which frees the port for a server.
// A non-blocking socket may be connected to itself although connect() says that it is still in progress.
bool connect_socket(int sock, const addrinfo& address) {
  const bool is_connected = ::connect(sock, address.ai_addr, address.ai_addrlen) == 0;
  if (!is_connected && errno != EINPROGRESS) return false;
  if (!is_connected_to_itself(sock, address)) return is_connected;
  const sockaddr nowhere = {AF_UNSPEC, {}};
  static_cast<void>(::connect(sock, &nowhere, sizeof(nowhere)));
  return false;
}

// Starts connecting to the first address; no other one is tried. Does not wait for the connection; see
// has_failed().
int connect_to_first(const addrinfo* addresses) {
  const addrinfo* a = skip_ipv6(addresses);
  if (!a) return -1;
  int sock = open_upstream_socket(*a, SOCK_NONBLOCK);
  if (sock != -1) static_cast<void>(connect_socket(sock, *a));
  return sock;
}

// Tries the addresses in turn until one accepts.
int connect_to_any(const addrinfo* addresses) {
  int failed = 0;
  for (const addrinfo* a = skip_ipv6(addresses); a; a = skip_ipv6(a->ai_next)) {
    int sock = open_upstream_socket(*a, 0);
    if (connect_socket(sock, *a)) return sock;
    printf("Address %d failed: %s\n", failed++, address_text(*a).c_str());
    if (sock != -1) ::close(sock);
  }
  return -1;
}

}  // namespace

bool listen(int& sock, bool localhost_only, int port) {
  print_binding(localhost_only, port);
  addrinfo hints = {};
  hints.ai_flags = AI_PASSIVE;
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_protocol = IPPROTO_TCP;
  addrinfo* address = nullptr;
  int code =
      getaddrinfo(localhost_only ? "127.0.0.1" : nullptr, std::to_string(port).c_str(), &hints, &address);
  if (code != 0) {
    printf("getaddrinfo() failed: %d %s\n", code, gai_strerror(code));
    return false;
  }
  bool is_listening = listen_on(sock, *address);
  freeaddrinfo(address);
  return is_listening;
}

int connect(const std::string& host, int port, bool blocking) {
  static name_memory names;
  int code = 0;
  const addrinfo* addresses = names.find(host, port, code);
  if (code != 0) {
    printf("getaddrinfo() failed for host %s:%d!\n", host.c_str(), port);
    return -1;
  }
  int sock = blocking ? connect_to_any(addresses) : connect_to_first(addresses);
  if (sock == -1) printf("No addresses worked for host %s:%d.\n", host.c_str(), port);
  return sock;
}

bool has_failed(int sock) {
  sockaddr_storage peer;
  socklen_t peer_length = sizeof(peer);
  if (getpeername(sock, reinterpret_cast<sockaddr*>(&peer), &peer_length) == 0) return false;
  // Failed or in progress. SO_ERROR does not tell which: connect() clears the error that it reports.
  tcp_info info = {};
  socklen_t length = sizeof(info);
  return getsockopt(sock, IPPROTO_TCP, TCP_INFO, &info, &length) != 0 || info.tcpi_state == TCP_CLOSE;
}

}  // namespace sockets
