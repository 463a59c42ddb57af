// Outgoing connections.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <utility>
#include <vector>

#include "net/sockets.h"
#include "tests/net/child.h"
#include "tests/support/client.h"
#include "tests/support/console.h"
#include "tests/support/faults.h"

namespace {

class sockets_connect : public testing::Test {
 protected:
  sockets_connect() {
    faults::clear();  // the listener's calls do not count
  }

  ~sockets_connect() override {
    faults::clear();
    if (sock >= 0) close(sock);
  }

  int connect(const std::string& host, bool blocking) {
    return sock = sockets::connect(host, upstream.port(), blocking);
  }

  // The address that a connected socket talks to.
  std::string peer() const {
    sockaddr_in address = {};
    socklen_t length = sizeof(address);
    char text[INET_ADDRSTRLEN] = "nobody";
    if (getpeername(sock, reinterpret_cast<sockaddr*>(&address), &length) == 0)
      getnameinfo(reinterpret_cast<sockaddr*>(&address), length, text, sizeof(text), nullptr, 0,
                  NI_NUMERICHOST);
    return text;
  }

  int own_port() const {
    sockaddr_in address = {};
    socklen_t length = sizeof(address);
    EXPECT_EQ(getsockname(sock, reinterpret_cast<sockaddr*>(&address), &length), 0);
    return ntohs(address.sin_port);
  }

  static int option(int sock, int level, int name) {
    int value = -1;
    socklen_t length = sizeof(value);
    EXPECT_EQ(getsockopt(sock, level, name, &value, &length), 0);
    return value;
  }

  void expect_console(const std::string& text) { EXPECT_EQ(screen.text(), text); }

  void expect_no_address(const std::string& host, const std::string& before = "") {
    EXPECT_EQ(sock, -1);
    expect_console(before + "No addresses worked for host " + host + ":" + std::to_string(upstream.port()) +
                   ".\n");
  }

  console screen;
  listener upstream;
  int sock = -7;
};

class either_way : public sockets_connect, public testing::WithParamInterface<bool> {
 protected:
  int connect(const std::string& host) { return sockets_connect::connect(host, GetParam()); }
};

INSTANTIATE_TEST_SUITE_P(blocking, either_way, testing::Bool());

TEST_P(either_way, bytes_reach_the_listener_at_the_name_localhost) {
  ASSERT_GE(connect("localhost"), 0);
  pollfd writable = {sock, POLLOUT, 0};
  ASSERT_EQ(poll(&writable, 1, 10000), 1);
  ASSERT_EQ(send(sock, "hello", 5, 0), 5);
  client other = upstream.accept();
  EXPECT_TRUE(repeat_until([&] { other.poll(); }, [&] { return other.received() == "hello"; }));
  expect_console("");
}

// This address is on this machine, but does not look so.
const char elsewhere[] = "0.0.0.0";

TEST_P(either_way, socket_sends_small_packets_at_once) {
  for (const char* host : {"127.0.0.1", elsewhere}) {
    ASSERT_GE(connect(host), 0);
    EXPECT_EQ(option(sock, IPPROTO_TCP, TCP_NODELAY), 1) << host;
    close(std::exchange(sock, -1));
  }
}

TEST_P(either_way, silent_peer_is_given_up_after_two_minutes_of_probes) {
  ASSERT_GE(connect(elsewhere), 0);
  EXPECT_EQ(option(sock, SOL_SOCKET, SO_KEEPALIVE), 1);
  EXPECT_EQ(option(sock, IPPROTO_TCP, TCP_KEEPIDLE) +
                option(sock, IPPROTO_TCP, TCP_KEEPINTVL) * option(sock, IPPROTO_TCP, TCP_KEEPCNT),
            120);
}

// Such a peer cannot vanish unnoticed, and every call that sets an option costs time.
TEST_P(either_way, peer_on_this_machine_is_not_probed) {
  ASSERT_GE(connect("127.0.0.1"), 0);
  EXPECT_EQ(option(sock, SOL_SOCKET, SO_KEEPALIVE), 0);
}

// A listener whose queue is full answers no more connections. New connections to it stay unfinished.
TEST_F(sockets_connect, connection_under_way_has_not_failed) {
  const int full = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof(address);
  ASSERT_EQ(bind(full, reinterpret_cast<sockaddr*>(&address), length), 0);
  ASSERT_EQ(getsockname(full, reinterpret_cast<sockaddr*>(&address), &length), 0);
  ASSERT_EQ(listen(full, 0), 0);
  std::vector<int> waiting;
  pollfd connected = {-1, POLLOUT, 0};
  do {
    waiting.push_back(sockets::connect("127.0.0.1", ntohs(address.sin_port), false));
    connected.fd = waiting.back();
  } while (waiting.size() < 10 && poll(&connected, 1, 0) == 1);
  EXPECT_LT(waiting.size(), 10u) << "the queue never gets full";
  EXPECT_FALSE(sockets::has_failed(waiting.back()));
  for (int each : waiting) close(each);
  close(full);
}

TEST_F(sockets_connect, all_of_the_loopback_network_is_on_this_machine) {
  ASSERT_GE(connect("127.255.3.4", false), 0);
  EXPECT_EQ(option(sock, SOL_SOCKET, SO_KEEPALIVE), 0);
}

// The system may choose the destination port as the local port, too. If nobody listens there, the connection
// becomes its own peer.
TEST_P(either_way, same_port_on_another_address_is_no_connection_to_itself) {
  faults::resolved() = {"127.0.0.2"};
  const client other_host = client::from_socket(socket(AF_INET, SOCK_STREAM, 0));
  const int port = free_port();
  const int on = 1;
  setsockopt(other_host.sock(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(0x7f000002);
  ASSERT_EQ(bind(other_host.sock(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  ASSERT_EQ(listen(other_host.sock(), 1), 0);
  faults::outgoing_port() = port;
  sock = sockets::connect("other.example", port, GetParam());
  ASSERT_GE(sock, 0);
  EXPECT_EQ(own_port(), port);
  EXPECT_EQ(peer(), "127.0.0.2");
  EXPECT_FALSE(sockets::has_failed(sock));
}

TEST_P(either_way, connection_to_itself_counts_as_refused) {
  faults::outgoing_port() = free_port();
  sock = sockets::connect("127.0.0.1", faults::outgoing_port(), GetParam());
  EXPECT_TRUE(sockets::has_failed(sock));
}

// Linux reports twice the size that was asked for. It gives at most the size in rmem_max.
TEST_P(either_way, receive_buffer_is_half_a_megabyte_or_what_the_system_gives_at_most) {
  int most = 0;
  ASSERT_TRUE(std::ifstream("/proc/sys/net/core/rmem_max") >> most);
  ASSERT_GE(connect("127.0.0.1"), 0);
  EXPECT_EQ(option(sock, SOL_SOCKET, SO_RCVBUF), 2 * std::min(most, 524288));
}

TEST_P(either_way, socket_is_left_unregistered) {
  ASSERT_GE(connect("127.0.0.1"), 0);
  EXPECT_FALSE(FD_ISSET(sock, sockets::all()));
  EXPECT_FALSE(FD_ISSET(sock, sockets::ready()));
}

TEST_P(either_way, unknown_host_is_printed_with_its_port) {
  faults::fail_next_look_up(EAI_NONAME);
  EXPECT_EQ(connect("nosuch.example"), -1);
  expect_console("getaddrinfo() failed for host nosuch.example:" + std::to_string(upstream.port()) + "!\n");
}

// Names are remembered for a second. The result of a test must not depend on what was looked up before it.
TEST_P(either_way, look_up_can_be_made_to_fail_for_a_name_that_was_just_found) {
  faults::frozen_clock() = 1700000000;
  ASSERT_GE(connect("localhost"), 0);
  close(sock);
  faults::fail_next_look_up(EAI_NONAME);
  EXPECT_EQ(connect("localhost"), -1);
}

TEST_P(either_way, port_that_the_resolver_refuses_fails_its_look_up) {
  EXPECT_EQ(sockets::connect("127.0.0.1", -1, GetParam()), -1);
  expect_console("getaddrinfo() failed for host 127.0.0.1:-1!\n");
}

TEST_P(either_way, empty_list_of_addresses_is_printed) {
  faults::of()["getaddrinfo"] = {0, 1, 0, 0};
  connect("empty.example");
  expect_no_address("empty.example");
}

TEST_P(either_way, host_with_ipv6_addresses_only_has_none_that_works) {
  connect("::1");
  EXPECT_EQ(faults::calls()["socket"], 0);
  expect_no_address("::1");
}

TEST_P(either_way, ipv6_addresses_are_skipped_silently) {
  faults::resolved() = {"::1", "2001:db8::1", "127.0.0.1"};
  ASSERT_GE(connect("both.example"), 0);
  EXPECT_EQ(peer(), "127.0.0.1");
  expect_console("");
}

TEST_F(sockets_connect, not_blocking__socket_stays_non_blocking) {
  ASSERT_GE(connect("127.0.0.1", false), 0);
  EXPECT_TRUE(fcntl(sock, F_GETFL) & O_NONBLOCK);
}

TEST_F(sockets_connect, not_blocking__refusal_is_no_failure_yet) {
  int port = free_port();
  sock = sockets::connect("127.0.0.1", port, false);
  EXPECT_GE(sock, 0);
  expect_console("");
}

TEST_F(sockets_connect, not_blocking__only_the_first_address_is_tried) {
  faults::resolved() = {"127.0.0.9", "127.0.0.1"};  // the listener is on 127.0.0.1 only
  ASSERT_GE(connect("two.example", false), 0);
  EXPECT_EQ(faults::calls()["connect"], 1);
  EXPECT_EQ(faults::calls()["socket"], 1);
  EXPECT_TRUE(sockets::has_failed(sock));
  expect_console("");
}

TEST_F(sockets_connect, not_blocking__missing_socket_counts_as_no_address) {
  faults::resolved() = {"127.0.0.1", "127.0.0.1"};
  faults::of()["socket"] = {0, 1, EMFILE};
  connect("two.example", false);
  expect_no_address("two.example");
}

TEST_F(sockets_connect, blocking__socket_stays_blocking) {
  ASSERT_GE(connect("127.0.0.1", true), 0);
  EXPECT_FALSE(fcntl(sock, F_GETFL) & O_NONBLOCK);
}

TEST_F(sockets_connect, blocking__addresses_are_tried_in_turn_and_failures_counted_from_0) {
  faults::resolved() = {"127.0.0.9", "::1", "127.0.0.200", "127.0.0.1", "127.0.0.8"};
  ASSERT_GE(connect("many.example", true), 0);
  EXPECT_EQ(peer(), "127.0.0.1");
  expect_console("Address 0 failed: 127.0.0.9\nAddress 1 failed: 127.0.0.200\n");
}

TEST_F(sockets_connect, blocking__longest_address_is_printed_whole) {
  faults::resolved() = {"255.255.255.255"};
  connect("far.example", true);
  expect_no_address("far.example", "Address 0 failed: 255.255.255.255\n");
}

TEST_F(sockets_connect, blocking__address_of_another_family_is_named_so) {
  faults::resolved() = {"", "127.0.0.9"};
  connect("odd.example", true);
  expect_no_address("odd.example",
                    "Address 0 failed: (Unknown address family)\nAddress 1 failed: 127.0.0.9\n");
}

TEST_F(sockets_connect, blocking__missing_socket_is_a_failed_address) {
  faults::of()["socket"] = {0, 1, EMFILE};
  connect("127.0.0.1", true);
  expect_no_address("127.0.0.1", "Address 0 failed: 127.0.0.1\n");
}

TEST_F(sockets_connect, blocking__sockets_of_failed_addresses_are_closed) {
  int next = dup(STDOUT_FILENO);
  close(next);
  faults::resolved() = {"127.0.0.9", "127.0.0.8", "127.0.0.1"};
  EXPECT_EQ(connect("many.example", true), next);
}

TEST_F(sockets_connect, messages_are_not_flushed) {
  EXPECT_TRUE(prints_without_flush([&] {
    faults::resolved() = {"127.0.0.9"};
    connect("far.example", true);
    faults::fail_next_look_up(EAI_NONAME);
    connect("nosuch.example", false);
  }));
  const std::string port = ":" + std::to_string(upstream.port());
  expect_console("Address 0 failed: 127.0.0.9\nNo addresses worked for host far.example" + port +
                 ".\ngetaddrinfo() failed for host nosuch.example" + port + "!\n");
}

TEST_F(sockets_connect, refused_connection_is_known_to_have_failed) {
  int port = free_port();
  sock = sockets::connect("127.0.0.1", port, false);
  EXPECT_TRUE(sockets::has_failed(sock));
  EXPECT_TRUE(sockets::has_failed(sock)) << "asking once does not clear the result";
}

TEST_F(sockets_connect, connection_to_a_listener_has_not_failed) {
  connect("127.0.0.1", false);
  EXPECT_FALSE(sockets::has_failed(sock));
  EXPECT_EQ(faults::calls()["getsockopt"], 0)
      << "the answer of TCP_INFO is long, and the usual case needs none";
  client other = upstream.accept();
  EXPECT_FALSE(sockets::has_failed(sock));
}

TEST_F(sockets_connect, connection_that_the_peer_has_closed_has_not_failed) {
  connect("127.0.0.1", false);
  upstream.accept().close();
  pollfd readable = {sock, POLLIN, 0};
  ASSERT_EQ(poll(&readable, 1, 10000), 1);
  EXPECT_FALSE(sockets::has_failed(sock));
}

TEST_F(sockets_connect, no_socket_counts_as_failed) {
  EXPECT_TRUE(sockets::has_failed(-1));
}

}  // namespace
