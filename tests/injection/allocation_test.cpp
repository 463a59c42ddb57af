// Memory that is refused: the pages of a connection, and each allocation of a conversation, even small ones.

#include <fcntl.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <ctime>
#include <memory>
#include <vector>

#include "tests/injection/fault_run.h"
#include "tests/injection/plain_conversation.h"
#include "tests/support/operator_new.h"

extern "C" {

void* __real_malloc(size_t size);

// The linker replaces malloc() by this function, in our own code only.
void* __wrap_malloc(size_t size) {
  return new_is_refused() ? nullptr : __real_malloc(size);
}

}  // extern "C"

namespace {

/* A stage on which no connection finds the pages of an earlier one. */
class stage_without_spares : public plain_stage {
 public:
  stage_without_spares() {
    with_faults on;
    take_spares([this] { return new proxy_connection(-1, &unused_); });
    take_spares([] { return new reverse_proxy; });
  }

 private:
  static constexpr int mapped_at_once = 8;

  // The first object after the last spare slot maps new pages, and with them new spare slots. All are taken.
  template <class Make>
  void take_spares(Make make) {
    const int mapped = faults::calls()["mmap"];
    while (faults::calls()["mmap"] == mapped) taken_.emplace_back(make());
    for (int i = 1; i < mapped_at_once; i++) taken_.emplace_back(make());
  }

  proxy_pipe unused_;
  std::vector<std::unique_ptr<connection>> taken_;
};

// Fills the lists of faults now, because their own allocations could be refused later.
void prepare_lists() {
  for (const char* call :
       {"socket",     "bind",  "listen", "accept4",    "connect",    "select",      "recv",
        "send",       "close", "fcntl",  "setsockopt", "getsockopt", "getaddrinfo", "getnameinfo",
        "getifaddrs", "stat",  "fopen",  "mmap",       "munmap",     "madvise"})
    faults::calls()[call] = 0;
}

/* A conversation during which `granted` allocations succeed and the next `refused` fail. False when there
 * were not so many. */
template <class Stage, class Conversation>
bool run_refused(int granted, int refused) {
  SCOPED_TRACE("allocation " + std::to_string(granted + 1) + " is refused, and " +
               std::to_string(refused - 1) + " after it");
  descriptor_check descriptors;
  console screen;
  Stage here;
  EXPECT_TRUE(here.start());
  prepare_lists();
  Conversation during(here);
  new_faults() = {true, 0, granted, refused};
  during.play();
  const bool is_refused = new_faults().refused < refused;
  new_faults() = {};
  EXPECT_LE(during.count_harmed(), refused) << during.harmed();
  Conversation afterwards(here);
  afterwards.play();
  EXPECT_EQ(afterwards.harmed(), "") << "after the refusal";
  here.stop();
  EXPECT_EQ(here.connections(), 0);
  return is_refused;
}

template <class Stage, class Conversation>
void refuse_every_allocation(int refused) {
  run_refused<Stage, Conversation>(0, 0);  // for memory that the process allocates only once
  int granted = 0;
  while (!testing::Test::HasFailure() && run_refused<Stage, Conversation>(granted, refused)) granted++;
  testing::Test::RecordProperty("runs", granted);
  EXPECT_GT(granted, 50);
}

/* A turn in which every allocation is refused. Expects that it throws nothing. */
template <class Stage>
void take_turn_without_memory(Stage& here) {
  prepare_lists();
  new_faults() = {true, 0, 0, INT_MAX};
  EXPECT_NO_THROW(here.turn());
  new_faults() = {};
}

}  // namespace

// The second piece of the head doubles the memory of its text, which is then enough for the bytes that
// follow.
TEST(allocation, turn_of_an_idle_or_reading_server_needs_none) {
  console screen;
  plain_stage here;
  ASSERT_TRUE(here.start());
  client c(here.port());
  for (const char* piece : {"GET / HTTP/1.1\r\nHost: a\r\nX: ", "a second piece"}) {
    c.send(piece);
    for (int i = 0; i < 5; i++) here.turn();
  }
  for (const char* piece : {"", "x"}) {
    for (int i = 0; i < 10; i++) {
      c.send(piece);
      new_faults() = {true, 0, INT_MAX, 0};
      here.turn();
      const int calls = new_faults().calls;
      new_faults() = {};
      EXPECT_EQ(calls, 0) << "turn " << i << " with \"" << piece << "\"";
    }
  }
  EXPECT_EQ(here.connections(), 1);
  c.close();
  here.stop();
}

// The memory of the first request serves the later ones, so a busy server does not ask the allocator for each
// of them. A body with a length pays nothing for the search for chunks.
TEST(allocation, next_request_on_a_kept_connection_needs_none) {
  descriptor_check descriptors;
  console screen;
  plain_stage here;
  ASSERT_TRUE(here.start());
  listener upstream;
  reverse_proxy::hosts().set("a", upstream.port());
  const std::string lines = "User-Agent: a browser with a long name\r\n" + length_of("0123456789");
  const std::string wanted = forwarded("a", "/a/long/path?with=a&query", lines, "0123456789");
  client from(here.port());
  std::unique_ptr<client> to;
  for (int round = 0; round < 4; round++) {
    new_faults() = {round > 0};  // counts only during the turns
    from.send(request_to("a", "/a/long/path?with=a&query", lines, "0123456789"));
    EXPECT_TRUE(repeat_until([&] { here.turn(); },
                             [&] {
                               if (!to || !to->ok()) to = std::make_unique<client>(upstream.accept());
                               return to->ok() && to->poll() && to->received() == wanted;
                             }));
    to->send("a response of some length");
    EXPECT_TRUE(repeat_until([&] { here.turn(); },
                             [&] { return from.poll() && from.received() == "a response of some length"; }));
    EXPECT_EQ(new_faults().calls, 0) << "in round " << round;
    new_faults() = {};
    to->forget_received();
    from.forget_received();
  }
  here.stop();
}

TEST(allocation, server_starts_again_without_memory) {
  descriptor_check descriptors;
  console screen;
  plain_stage here;
  faults::adapters() = {"10.11.12.13", "10.11.12.14", "10.11.12.15"};
  ASSERT_TRUE(here.start());
  here.turn();  // for memory that the process allocates only once
  screen.clear();
  faults::of()["select"] = {0, 1, EBADF};
  take_turn_without_memory(here);
  EXPECT_EQ(screen.text(), "select() failed! 9\nBinding to port " + std::to_string(here.port()) +
                               " on all adapters:\n10.11.12.13\n10.11.12.14\n10.11.12.15\n");
  EXPECT_TRUE(here.is_serving());
  here.stop();
}

TEST(allocation, certificate_whose_check_had_no_memory_is_loaded_by_the_next_check) {
  descriptor_check descriptors;
  console screen;
  tls_stage here;
  here.change_files();
  ASSERT_TRUE(here.start());
  here.turn();  // for memory that the process allocates only once
  here.change_files();
  for (bool is_refused : {true, false}) {
    faults::clock_offset() += 61;
    if (is_refused)
      take_turn_without_memory(here);
    else
      here.turn();
    EXPECT_EQ(screen.text().find("Reloading certificate...\n") == std::string::npos, is_refused);
  }
  here.stop();
}

// One of the allocations of a request is for the server's list of connections.
TEST(allocation, client_whose_upstream_the_server_could_not_take_gets_the_502_and_is_closed) {
  descriptor_check descriptors;
  console screen;
  plain_stage here;
  ASSERT_TRUE(here.start());
  const listener upstream;
  reverse_proxy::hosts().set("a", upstream.port());
  proxy_pipe unused;
  delete new proxy_connection(-1, &unused);  // the next one gets its memory
  faults::frozen_clock() = time(nullptr);    // so that the look-up below stays remembered
  sockets::close(sockets::connect("localhost", upstream.port(), false));
  prepare_lists();
  int refusals = 0;
  for (int granted = 0; granted < 100 && here.connections() == 0; granted++) {
    reverse_proxy proxy;
    {
      with_faults on;
      new_faults() = {true, 0, granted, 1};
      try {
        deliver(proxy, request_to("a"));
      } catch (const std::bad_alloc&) {
        new_faults() = {};
        continue;
      }
      new_faults() = {};
    }
    if (here.connections() == 0) refusals++;
    EXPECT_EQ(proxy.keep_alive, here.connections() == 1);
    EXPECT_EQ(std::string(proxy.pipe->to_client), here.connections() == 1 ? "" : bad_gateway);
  }
  EXPECT_EQ(refusals, 1);
  here.stop();
  faults::frozen_clock() = 0;
}

// write_file() owns the file from the beginning, so nobody else would close it.
TEST(allocation, file_of_an_answer_that_could_not_be_queued_is_closed) {
  console screen;
  bool is_refused = true;
  int granted = 0;
  for (; is_refused; granted++) {
    const auto conn = std::make_unique<http_connection>();
    FILE* const file = tmpfile();
    ASSERT_TRUE(file);
    const int descriptor = fileno(file);
    {
      with_faults on;
      new_faults() = {true, 0, granted, 1};
      try {
        conn->write_file("HTTP/1.1 200\r\n", file, 5);  // so short that the call itself allocates nothing
      } catch (const std::bad_alloc&) {
      }
      is_refused = new_faults().refused == 0;
      new_faults() = {};
    }
    EXPECT_EQ(fcntl(descriptor, F_GETFD) == -1, is_refused) << "allocation " << granted + 1;
  }
  EXPECT_GT(granted, 3);
}

// The list of the channel and both names need memory.
TEST(allocation, subscription_that_could_not_be_kept_leaves_nothing) {
  console screen;
  bool is_refused = true;
  int granted = 0;
  for (; is_refused; granted++) {
    const auto member = std::make_unique<http_connection>();
    member->upgraded = true;
    const std::string channel(100, 'c');
    {
      with_faults on;
      new_faults() = {true, 0, granted, 1};
      try {
        member->subscribe(channel);
      } catch (const std::bad_alloc&) {
      }
      is_refused = new_faults().refused == 0;
      new_faults() = {};
    }
    const uint32_t expected = is_refused ? 0 : 1;
    EXPECT_EQ(member->subscriptions.count, expected) << "allocation " << granted + 1;
    EXPECT_EQ(http_connection::channels().count, expected) << "allocation " << granted + 1;
  }
  EXPECT_GT(granted, 3);
  EXPECT_EQ(http_connection::channels().count, 0U);
  EXPECT_EQ(screen.text(), "");
}

TEST(allocation, connection_without_pages_is_the_only_one_harmed) {
  run_for_every_use<stage_without_spares>({"mmap", ENOMEM, harm::one_client}, 1);
}

TEST(allocation, connections_without_pages_are_survived) {
  run_for_every_use<stage_without_spares>({"mmap", ENOMEM, harm::one_client}, 5);
}

TEST(allocation, refusal_in_a_plain_conversation_harms_one_client_at_most) {
  refuse_every_allocation<http_stage, plain_conversation>(1);
}

TEST(allocation, refusals_in_a_row_in_a_plain_conversation_are_survived) {
  refuse_every_allocation<http_stage, plain_conversation>(5);
}

TEST(allocation, refusal_in_a_proxied_conversation_harms_one_client_at_most) {
  refuse_every_allocation<stage_without_spares, conversation>(1);
}

TEST(allocation, refusals_in_a_row_in_a_proxied_conversation_are_survived) {
  refuse_every_allocation<stage_without_spares, conversation>(5);
}
