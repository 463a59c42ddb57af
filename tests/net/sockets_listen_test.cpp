// Listening sockets: what is printed, what is opened, and what is left after a failure.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "net/sockets.h"
#include "tests/net/child.h"
#include "tests/support/client.h"
#include "tests/support/console.h"
#include "tests/support/faults.h"

namespace {

using testing::EndsWith;

class sockets_listen : public testing::Test {
 protected:
  sockets_listen() {
    faults::clear();  // the calls that found the port do not count
  }

  ~sockets_listen() override {
    faults::clear();
    if (sock >= 0) close(sock);
  }

  bool listen(bool localhost_only = true) { return sockets::listen(sock, localhost_only, port); }

  int option(int level, int name) const {
    int value = -1;
    socklen_t length = sizeof(value);
    EXPECT_EQ(getsockopt(sock, level, name, &value, &length), 0);
    return value;
  }

  sockaddr_in bound_address() const {
    sockaddr_in address = {};
    socklen_t length = sizeof(address);
    EXPECT_EQ(getsockname(sock, reinterpret_cast<sockaddr*>(&address), &length), 0);
    return address;
  }

  void expect_console(const std::string& text) { EXPECT_EQ(screen.text(), text); }

  std::string localhost_line() const {
    return "Binding to port " + std::to_string(port) + " on localhost only\n";
  }

  std::string all_adapters_line() const {
    return "Binding to port " + std::to_string(port) + " on all adapters:\n";
  }

  // The number that the next socket gets. A socket that was not closed would change it.
  static int next_descriptor() {
    int next = dup(STDOUT_FILENO);
    close(next);
    return next;
  }

  console screen;
  int port = free_port();
  int sock = -7;
};

TEST_F(sockets_listen, on_localhost_clients_reach_only_127_0_0_1) {
  ASSERT_TRUE(listen());
  expect_console(localhost_line());
  EXPECT_EQ(bound_address().sin_family, AF_INET);
  EXPECT_EQ(bound_address().sin_addr.s_addr, htonl(INADDR_LOOPBACK));
  EXPECT_TRUE(client(port).ok());
}

TEST_F(sockets_listen, on_all_adapters_clients_reach_any_ipv4_address) {
  ASSERT_TRUE(listen(false));
  EXPECT_EQ(bound_address().sin_family, AF_INET);
  EXPECT_EQ(bound_address().sin_addr.s_addr, htonl(INADDR_ANY));
  EXPECT_EQ(ntohs(bound_address().sin_port), port);
  EXPECT_TRUE(client(port).ok());
}

TEST_F(sockets_listen, addresses_of_the_adapters_are_printed_one_a_line) {
  struct {
    std::vector<std::string> adapters;
    std::string printed;
  } const cases[] = {
      {{"127.0.0.1"}, "127.0.0.1\n"},
      {{"127.0.0.1", "192.0.2.17", "255.255.255.255"}, "127.0.0.1\n192.0.2.17\n255.255.255.255\n"},
      {{"192.0.2.1", "192.0.2.1"}, "192.0.2.1\n192.0.2.1\n"},
      {{"::1", "192.0.2.1", "2001:db8::1"}, "192.0.2.1\n"},
      {{"", "192.0.2.1", "", "192.0.2.2", ""}, "192.0.2.1\n192.0.2.2\n"},
      {{"::1", ""}, "\n"}};
  for (const auto& c : cases) {
    screen.clear();
    faults::adapters() = c.adapters;
    ASSERT_TRUE(listen(false));
    expect_console(all_adapters_line() + c.printed);
    close(sock);
  }
  sock = -1;
}

TEST_F(sockets_listen, real_adapters_include_the_loopback) {
  ASSERT_TRUE(listen(false));
  EXPECT_THAT(screen.text(), testing::StartsWith(all_adapters_line()));
  EXPECT_THAT(screen.text(), testing::HasSubstr("\n127.0.0.1\n"));
}

TEST_F(sockets_listen, unknown_adapters_print_an_empty_line) {
  faults::of()["getifaddrs"] = {0, 1, ENOMEM};
  ASSERT_TRUE(listen(false));
  expect_console(all_adapters_line() + "\n");
}

TEST_F(sockets_listen, adapter_whose_address_has_no_text_is_left_out) {
  faults::adapters() = {"192.0.2.1", "192.0.2.2", "192.0.2.3"};
  faults::of()["getnameinfo"] = {1, 1, 0, EAI_FAIL};
  ASSERT_TRUE(listen(false));
  expect_console(all_adapters_line() + "192.0.2.1\n192.0.2.3\n");
}

TEST_F(sockets_listen, adapters_are_not_listed_for_localhost_only) {
  ASSERT_TRUE(listen());
  EXPECT_EQ(faults::calls()["getifaddrs"], 0);
}

TEST_F(sockets_listen, socket_is_shareable_and_does_not_block) {
  ASSERT_TRUE(listen());
  EXPECT_EQ(option(SOL_SOCKET, SO_REUSEADDR), 1);
  EXPECT_EQ(option(SOL_SOCKET, SO_REUSEPORT), 1);
  EXPECT_EQ(option(SOL_SOCKET, SO_ACCEPTCONN), 1);
  EXPECT_TRUE(fcntl(sock, F_GETFL) & O_NONBLOCK);
}

TEST_F(sockets_listen, two_sockets_can_share_a_port) {
  ASSERT_TRUE(listen());
  int first = sock;
  EXPECT_TRUE(listen());
  EXPECT_NE(sock, first);
  close(first);
}

// Linux takes one client more than the length of the queue, and lets the next one wait.
TEST_F(sockets_listen, queue_for_clients_holds_128) {
  ASSERT_TRUE(listen());
  std::vector<int> clients;
  pollfd connected = {-1, POLLOUT, 0};
  do {
    clients.push_back(sockets::connect("127.0.0.1", port, false));
    connected.fd = clients.back();
  } while (clients.size() < 300 && poll(&connected, 1, 0) == 1);
  EXPECT_EQ(clients.size() - 1, 128u + 1u) << "clients found room";
  for (int each : clients) close(each);
}

TEST_F(sockets_listen, socket_is_left_unregistered) {
  ASSERT_TRUE(listen());
  EXPECT_FALSE(FD_ISSET(sock, sockets::all()));
}

TEST_F(sockets_listen, only_the_first_address_found_is_used) {
  faults::resolved() = {"127.0.0.3", "127.0.0.4"};
  ASSERT_TRUE(listen());
  EXPECT_EQ(bound_address().sin_addr.s_addr, htonl(0x7f000003));
  EXPECT_EQ(faults::calls()["socket"], 1);
}

TEST_F(sockets_listen, localhost_is_looked_up_by_its_number_which_needs_no_file) {
  ASSERT_TRUE(listen());
  EXPECT_EQ(faults::last_node(), "127.0.0.1");
}

TEST_F(sockets_listen, ipv6_addresses_are_not_looked_up) {
  faults::resolved() = {"::1", "127.0.0.3"};
  ASSERT_TRUE(listen());
  EXPECT_EQ(bound_address().sin_family, AF_INET);
  EXPECT_EQ(bound_address().sin_addr.s_addr, htonl(0x7f000003));
}

TEST_F(sockets_listen, unresolved_address_is_printed_and_sock_left_untouched) {
  faults::of()["getaddrinfo"] = {0, 1, 0, EAI_MEMORY};
  EXPECT_FALSE(listen());
  EXPECT_EQ(sock, -7);
  expect_console(localhost_line() + "getaddrinfo() failed: -10 Memory allocation failure\n");
}

TEST_F(sockets_listen, port_that_the_resolver_refuses_fails_its_look_up) {
  port = -1;
  EXPECT_FALSE(listen());
  EXPECT_EQ(sock, -7);
  expect_console(
      "Binding to port -1 on localhost only\n"
      "getaddrinfo() failed: -8 Servname not supported for ai_socktype\n");
}

TEST_F(sockets_listen, missing_socket_is_printed) {
  faults::of()["socket"] = {0, 1, EMFILE};
  EXPECT_FALSE(listen());
  EXPECT_EQ(sock, -1);
  expect_console(localhost_line() + "socket() failed\n");
}

constexpr char port_taken_lines[] =
    "bind() failed: -1 Bad value for ai_flags\n"
    "Check that the port isn't already taken.\n"
    "This can be done with 'netstat -an' on windows/mac/linux.\n";

TEST_F(sockets_listen, port_taken_by_another_is_printed_with_the_resolvers_text_for_bind) {
  listener other(port);
  int next = next_descriptor();
  EXPECT_FALSE(listen());
  EXPECT_EQ(sock, -1);
  EXPECT_EQ(next_descriptor(), next);
  expect_console(localhost_line() + port_taken_lines);
}

TEST_F(sockets_listen, text_for_bind_does_not_depend_on_errno) {
  for (int error : {EACCES, EADDRNOTAVAIL}) {
    faults::of()["bind"] = {0, 1, error};
    EXPECT_FALSE(listen(false));
    EXPECT_THAT(screen.text(), EndsWith(port_taken_lines));
  }
}

TEST_F(sockets_listen, refused_listening_is_printed_and_the_socket_closed) {
  int next = next_descriptor();
  faults::of()["listen"] = {0, 1, EADDRINUSE};
  EXPECT_FALSE(listen());
  EXPECT_EQ(sock, -1);
  EXPECT_EQ(next_descriptor(), next);
  expect_console(localhost_line() + "listen() failed\n");
}

TEST_F(sockets_listen, nothing_is_flushed_to_the_console) {
  struct {
    bool localhost_only;
    const char* failing;
    std::string last_line;
  } const cases[] = {{true, "", "on localhost only\n"},
                     {false, "", "192.0.2.1\n"},
                     {true, "getaddrinfo", "getaddrinfo() failed: -1 Bad value for ai_flags\n"},
                     {true, "socket", "socket() failed\n"},
                     {true, "bind", port_taken_lines},
                     {true, "listen", "listen() failed\n"}};
  for (const auto& c : cases) {
    EXPECT_TRUE(prints_without_flush([&] {
      faults::adapters() = {"192.0.2.1"};
      faults::of()[c.failing] = {0, 1, EIO};
      listen(c.localhost_only);
    })) << c.failing;
    EXPECT_THAT(screen.text(), EndsWith(c.last_line));
    screen.clear();
  }
}

}  // namespace
