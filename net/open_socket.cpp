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

// The kernel may buffer this much of an upstream's reply, in bytes. Left to itself it grows to several
// MiB, all of which a turn reads into memory before the client has taken any of it.
constexpr int upstream_receive_buffer = 512 * 1024;

void set_option(int sock, int level, int name, int value) {
  setsockopt(sock, level, name, &value, sizeof(value));
}

// Without TCP_NODELAY, the second of two small packets waits for the peer's delayed acknowledgement, 40 ms.
void send_at_once(int sock) {
  set_option(sock, IPPROTO_TCP, TCP_NODELAY, 1);
}

// Keepalive finds peers that vanished without a word, after 60 + 4 * 15 s; proxied connections have no
// time-out that would.
void probe_silent_peers(int sock) {
  set_option(sock, SOL_SOCKET, SO_KEEPALIVE, 1);
  set_option(sock, IPPROTO_TCP, TCP_KEEPIDLE, 60);
  set_option(sock, IPPROTO_TCP, TCP_KEEPINTVL, 15);
  set_option(sock, IPPROTO_TCP, TCP_KEEPCNT, 4);
}

void set_nonblocking(int sock) {
  fcntl(sock, F_SETFL, fcntl(sock, F_GETFL) | O_NONBLOCK);
}

// socket() for an address, with a descriptor that fits into the sets; -1 otherwise. `flags` may be
// SOCK_NONBLOCK.
int open_socket(const addrinfo& address, int flags) {
  int sock = socket(address.ai_family, address.ai_socktype | flags, address.ai_protocol);
  if (sock == -1 || fits(sock)) return sock;
  ::close(sock);
  return -1;
}

// Prints the IPv4 addresses of the adapters, one a line. Not by way of a string: a server that starts again
// in the middle of its work must not fail for lack of memory.
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

// Closes a socket that could not be made to listen, and returns listen()'s false.
bool give_up(int& sock) {
  ::close(sock);
  sock = -1;
  return false;
}

// Opens, binds and sets listening a socket for one address; the rest is as listen() says.
bool listen_on(int& sock, const addrinfo& address) {
  sock = open_socket(address, 0);
  if (sock == -1) {
    printf("socket() failed\n");
    return false;
  }
  set_option(sock, SOL_SOCKET, SO_REUSEADDR, 1);
  set_option(sock, SOL_SOCKET, SO_REUSEPORT, 1);
  send_at_once(sock);  // both inherited by what is accepted, which saves the calls there
  probe_silent_peers(sock);
  int bound = bind(sock, address.ai_addr, address.ai_addrlen);
  if (bound == -1) {
    // The resolver's text for bind()'s result, not the text of errno: people search for this line.
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

// The dotted form of an address; what cannot be printed is named so.
std::string address_text(const addrinfo& address) {
  char text[46];
  if (address.ai_family == AF_INET)
    return inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in*>(address.ai_addr)->sin_addr, text, 16);
  if (address.ai_family == AF_INET6)
    return inet_ntop(AF_INET6, &reinterpret_cast<sockaddr_in6*>(address.ai_addr)->sin6_addr, text, 46);
  return "(Unknown address family)";
}

// Whether the peer is on this machine, where nobody vanishes without a word: a process that ends closes its
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

// The first address from `a` on that is not IPv6, over which no upstream is reached; null when there is none.
const addrinfo* skip_ipv6(const addrinfo* a) {
  while (a && a->ai_family == AF_INET6) a = a->ai_next;
  return a;
}

// Where nobody listens on a port out of the range for outgoing connections, the system may give this very
// port to the connection, which then is its own peer (RFC 9293, section 3.5, simultaneous open).
bool is_connected_to_itself(int sock, const addrinfo& address) {
  sockaddr_in own = {};
  socklen_t length = sizeof(own);
  if (address.ai_family != AF_INET || getsockname(sock, reinterpret_cast<sockaddr*>(&own), &length) != 0)
    return false;
  const auto* peer = reinterpret_cast<const sockaddr_in*>(address.ai_addr);
  return own.sin_port == peer->sin_port && own.sin_addr.s_addr == peer->sin_addr.s_addr;
}

// connect(), for which a connection to itself counts as refused. It is undone, which frees the port for a
// server. A socket that does not block may be connected to itself before it knows that it is connected.
bool connect_socket(int sock, const addrinfo& address) {
  const bool is_connected = ::connect(sock, address.ai_addr, address.ai_addrlen) == 0;
  if (!is_connected && errno != EINPROGRESS) return false;
  if (!is_connected_to_itself(sock, address)) return is_connected;
  const sockaddr nowhere = {AF_UNSPEC, {}};
  static_cast<void>(::connect(sock, &nowhere, sizeof(nowhere)));
  return false;
}

// Starts connecting to the first address, which decides. Failed or under way: what became of it shows when
// the socket is used.
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
  // Failed or under way. Not SO_ERROR: connect() has already reported, and thereby forgotten, an error that
  // it met itself.
  tcp_info info = {};
  socklen_t length = sizeof(info);
  return getsockopt(sock, IPPROTO_TCP, TCP_INFO, &info, &length) != 0 || info.tcpi_state == TCP_CLOSE;
}

}  // namespace sockets
