/* turns: the vocabulary of the tests that drive servers by hand, one turn after the other.
 *
 *     take_turn(front, back);                one wait for all sockets, then one update of each server
 *     take_turn_or_idle(servers);            as the loop over several servers does it, with on_idle()
 *     silence_reports(front);                the server never prints how many connections it has
 *     wait_for(sock, POLLIN)                 whether the socket gets into this state; false after 10 s
 *     unread_bytes(sock)                     how many bytes have arrived there
 *     send_and_wait(remote, sock, "...");    the bytes have arrived at the socket when this returns
 *     time_out_line(sock)                    what a server prints when it ends an idle connection
 *
 * Nothing here needs the framework of the unit tests, because a fuzzer uses it, too. */
#pragma once

#include <poll.h>
#include <sys/ioctl.h>

#include <cstdint>
#include <string>

#include "net/server.h"
#include "net/sockets.h"
#include "tests/support/client.h"

template <class... Servers>
void take_turn(Servers&... servers) {
  sockets::select_all();
  (servers.update(), ...);
}

template <class Servers>
void take_turn_or_idle(const Servers& servers) {
  sockets::select_all();
  for (abstract_server* s : servers) s->update();
  if (sockets::num_ready() != 0) return;
  for (abstract_server* s : servers) s->on_idle();
}

inline void silence_reports(server_base& s) {
  s.last_report = INT64_MAX / 2;  // no clock of a test gets there
}

inline bool wait_for(int sock, short events) {
  pollfd p = {sock, events, 0};
  return ::poll(&p, 1, 10000) == 1;
}

inline int unread_bytes(int sock) {
  int count = 0;
  ioctl(sock, FIONREAD, &count);
  return count;
}

/* False after 10 s. */
inline bool send_and_wait(client& from, int sock, const std::string& bytes) {
  const int wanted = unread_bytes(sock) + static_cast<int>(bytes.size());
  from.send(bytes);
  return repeat_until([] {}, [&] { return unread_bytes(sock) >= wanted; });
}

inline std::string time_out_line(int sock) {
  return std::to_string(sock) + " has timed out.\n";
}
