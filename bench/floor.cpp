/* floor: shows the least that relaying costs. It is a loop that parses nothing: each client gets an upstream
 * connection of its own, and every chunk is one recv and one send. It is not a server for use, because it
 * trusts both sides.
 *
 *     floor [port] [upstream port]           waits with epoll_wait()
 *     floor [port] [upstream port] select    waits with select(), as mivo does */

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

namespace {

int partner[65536];
char buf[1048576];

constexpr int most_ready = 256;  // sockets after a wait

// Exactly one of the two is in use: epoll is -1 when select() waits for the members of `watched`.
int epoll = -1;
fd_set watched;
int highest = 0;  // descriptor in `watched`, at any time

sockaddr_in loopback(int port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<uint16_t>(port));
  return address;
}

void watch(int sock) {
  int on = 1;
  setsockopt(sock, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  if (epoll == -1) {
    FD_SET(sock, &watched);
    highest = std::max(highest, sock);
    return;
  }
  epoll_event event = {};
  event.events = EPOLLIN;
  event.data.fd = sock;
  epoll_ctl(epoll, EPOLL_CTL_ADD, sock, &event);
}

void close_watched(int sock) {
  close(sock);
  if (epoll == -1) FD_CLR(sock, &watched);
}

// Waits, and stores the sockets that can be read. Returns their number.
int wait_for(int* ready, int most) {
  int count = 0;
  if (epoll == -1) {
    fd_set readable = watched;
    select(FD_SETSIZE, &readable, nullptr, nullptr, nullptr);
    for (int sock = 0; sock <= highest && count < most; sock++) {
      if (FD_ISSET(sock, &readable)) ready[count++] = sock;
    }
    return count;
  }
  epoll_event events[most_ready];
  count = epoll_wait(epoll, events, std::min(most, most_ready), -1);
  for (int i = 0; i < count; i++) ready[i] = events[i].data.fd;
  return count;
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
  if (argc != 3 && argc != 4) return 1;
  const sockaddr_in own = loopback(atoi(argv[1]));
  const sockaddr_in upstream = loopback(atoi(argv[2]));
  if (argc == 3) epoll = epoll_create1(0);
  int listening = socket(AF_INET, SOCK_STREAM, 0);
  int on = 1;
  setsockopt(listening, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  if (bind(listening, reinterpret_cast<const sockaddr*>(&own), sizeof(own)) != 0) return 1;
  listen(listening, 1024);
  watch(listening);
  for (;;) {
    int ready[most_ready];
    const int count = wait_for(ready, most_ready);
    for (int i = 0; i < count; i++) {
      const int sock = ready[i];
      if (sock == listening) {
        int client = accept(listening, nullptr, nullptr);
        int other = socket(AF_INET, SOCK_STREAM, 0);
        if (connect(other, reinterpret_cast<const sockaddr*>(&upstream), sizeof(upstream)) != 0) return 1;
        partner[client] = other;
        partner[other] = client;
        watch(client);
        watch(other);
        continue;
      }
      if (partner[sock] == 0) continue;  // closed earlier in this batch
      ssize_t n = recv(sock, buf, sizeof(buf), 0);
      if (n > 0 && send_all(partner[sock], n)) continue;
      close_watched(partner[sock]);
      close_watched(sock);
      partner[partner[sock]] = 0;
      partner[sock] = 0;
    }
  }
}
