#include "net/name_memory.h"

#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "tests/support/faults.h"

namespace {

class a_name_memory : public testing::Test {
 protected:
  name_memory names;
  int code = -1;

  a_name_memory() {
    faults::clear();
    faults::frozen_clock() = 1000;
    faults::resolved() = {"127.0.0.1", "127.0.0.2"};
  }
  ~a_name_memory() override { faults::clear(); }

  // The first address and its port; "nothing" when there is none.
  std::string find(const std::string& host, int port) {
    const addrinfo* list = names.find(host, port, code);
    if (!list) return "nothing";
    auto* address = reinterpret_cast<const sockaddr_in*>(list->ai_addr);
    return std::to_string(ntohl(address->sin_addr.s_addr) & 255) + ":" +
           std::to_string(ntohs(address->sin_port));
  }

  static int look_ups() { return faults::calls()["getaddrinfo"]; }
};

TEST_F(a_name_memory, name_is_looked_up_once_in_a_second) {
  EXPECT_EQ(find("localhost", 80), "1:80");
  EXPECT_EQ(find("localhost", 80), "1:80");
  EXPECT_EQ(code, 0);
  EXPECT_EQ(look_ups(), 1);
}

TEST_F(a_name_memory, whole_list_is_remembered) {
  find("localhost", 80);
  const addrinfo* list = names.find("localhost", 80, code);
  ASSERT_TRUE(list && list->ai_next);
  EXPECT_FALSE(list->ai_next->ai_next);
}

TEST_F(a_name_memory, changed_address_is_seen_in_the_next_second) {
  find("localhost", 80);
  faults::resolved() = {"127.0.0.9"};
  EXPECT_EQ(find("localhost", 80), "1:80");
  faults::frozen_clock() = 1001;
  EXPECT_EQ(find("localhost", 80), "9:80");
  EXPECT_EQ(look_ups(), 2);
}

TEST_F(a_name_memory, clock_set_back_is_another_second) {
  find("localhost", 80);
  faults::frozen_clock() = 900;
  find("localhost", 80);
  EXPECT_EQ(look_ups(), 2);
}

TEST_F(a_name_memory, hosts_and_ports_are_distinguished) {
  EXPECT_EQ(find("localhost", 80), "1:80");
  EXPECT_EQ(find("localhost", 81), "1:81");
  faults::resolved() = {"127.0.0.7"};
  EXPECT_EQ(find("another", 80), "7:80");
  EXPECT_EQ(find("localhost", 81), "1:81");
  EXPECT_EQ(look_ups(), 3);
}

TEST_F(a_name_memory, digits_of_a_host_are_not_taken_for_those_of_a_port) {
  EXPECT_EQ(find("host", 180), "1:180");
  EXPECT_EQ(find("host1", 80), "1:80");
  EXPECT_EQ(look_ups(), 2);
}

TEST_F(a_name_memory, remembered_answer_is_a_success_after_another_name_has_failed) {
  find("localhost", 80);
  faults::of()["getaddrinfo"] = {0, 1, 0, EAI_NONAME};
  EXPECT_EQ(find("another", 80), "nothing");
  EXPECT_EQ(code, EAI_NONAME);
  EXPECT_EQ(find("localhost", 80), "1:80");
  EXPECT_EQ(code, 0);
}

// The resolver is real here: for addresses in digits it needs no other machine.
TEST_F(a_name_memory, resolver_is_asked_for_streams_of_any_family) {
  faults::resolved().clear();
  const struct {
    const char* host;
    int family;
  } rows[] = {{"127.0.0.1", AF_INET}, {"::1", AF_INET6}};
  for (const auto& row : rows) {
    const addrinfo* list = names.find(row.host, 80, code);
    ASSERT_TRUE(list) << row.host << ": " << gai_strerror(code);
    EXPECT_EQ(list->ai_family, row.family);
    EXPECT_EQ(list->ai_socktype, SOCK_STREAM);
    EXPECT_FALSE(list->ai_next) << row.host << " has other kinds of sockets, too";
  }
}

TEST_F(a_name_memory, failure_is_not_remembered) {
  faults::of()["getaddrinfo"] = {0, 1, 0, EAI_AGAIN};
  EXPECT_EQ(find("localhost", 80), "nothing");
  EXPECT_EQ(code, EAI_AGAIN);
  EXPECT_EQ(find("localhost", 80), "1:80");
  EXPECT_EQ(code, 0);
}

TEST_F(a_name_memory, empty_answer_is_a_success_without_addresses) {
  faults::of()["getaddrinfo"] = {0, 1, 0, 0};
  EXPECT_EQ(find("localhost", 80), "nothing");
  EXPECT_EQ(code, 0);
  EXPECT_EQ(find("localhost", 80), "1:80");
}

}  // namespace
