/* floor: shows the least that relaying costs. It is an epoll loop that parses nothing: each client gets an
 * upstream connection of its own, and every chunk is one recv and one send. It is not a server for use,
 * because it trusts both sides.
 *
 *     floor [port] [upstream port] */

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>

namespace {

int partner[65536];
char buf[1048576];

sockaddr_in loopback(int port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<uint16_t>(port));
  return address;
}

void watch(int epoll, int sock) {
  int on = 1;
  setsockopt(sock, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  epoll_event event = {};
  event.events = EPOLLIN;
  event.data.fd = sock;
  epoll_ctl(epoll, EPOLL_CTL_ADD, sock, &event);
}

// Blocks while the other side is full, which is acceptable in a floor.
bool send_all(int sock, ssize_t len) {
  for (ssize_t done = 0; done < len;) {
    ssize_t n = send(sock, buf + done, static_cast<size_t>(len - done), MSG_NOSIGNAL);
    if (n <= 0) return false;
    done += n;
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 1;
  const sockaddr_in own = loopback(atoi(argv[1]));
  const sockaddr_in upstream = loopback(atoi(argv[2]));
  int listening = socket(AF_INET, SOCK_STREAM, 0);
  int on = 1;
  setsockopt(listening, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  if (bind(listening, reinterpret_cast<const sockaddr*>(&own), sizeof(own)) != 0) return 1;
  listen(listening, 1024);
  int epoll = epoll_create1(0);
  watch(epoll, listening);
  for (;;) {
    epoll_event events[256];
    int count = epoll_wait(epoll, events, 256, -1);
    for (int i = 0; i < count; i++) {
      int sock = events[i].data.fd;
      if (sock == listening) {
        int client = accept(listening, nullptr, nullptr);
        int other = socket(AF_INET, SOCK_STREAM, 0);
        if (connect(other, reinterpret_cast<const sockaddr*>(&upstream), sizeof(upstream)) != 0) return 1;
        partner[client] = other;
        partner[other] = client;
        watch(epoll, client);
        watch(epoll, other);
        continue;
      }
      if (partner[sock] == 0) continue;  // closed earlier in this batch
      ssize_t n = recv(sock, buf, sizeof(buf), 0);
      if (n > 0 && send_all(partner[sock], n)) continue;
      close(partner[sock]);
      close(sock);
      partner[partner[sock]] = 0;
      partner[sock] = 0;
    }
  }
}
