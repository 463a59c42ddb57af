// The connection object alone: its fields, and the memory that it stands in.

#include "net/connection.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "net/connection_memory.h"
#include "net/server.h"
#include "tests/support/faults.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#endif

namespace {

struct silent_connection : connection {
  void on_recv(char*, int) override {}
  bool on_send(char*, int, int*) override { return true; }
};

// A connection class with `Extra` bytes of its own, which no constructor touches.
template <size_t Extra>
struct larger_connection : silent_connection {
  char extra[Extra];
};

constexpr int many = 400;

class connection_test : public testing::Test {
 protected:
  connection_test() { faults::frozen_clock() = 1700000000; }
  ~connection_test() override { faults::clear(); }
};

TEST_F(connection_test, fields_have_their_first_values_whatever_the_memory_held) {
  std::vector<char> memory(sizeof(silent_connection) + alignof(silent_connection), '\xab');
  void* place = memory.data();
  size_t space = memory.size();
  std::align(alignof(silent_connection), sizeof(silent_connection), place, space);
  connection* c = new (place) silent_connection;
  EXPECT_EQ(c->sock, -1);
  EXPECT_EQ(c->ip, 0u);
  EXPECT_EQ(c->port, 0);
  EXPECT_EQ(c->last_active, 1700000000);
  EXPECT_EQ(c->server, nullptr);
  EXPECT_EQ(c->ssl, nullptr);
  EXPECT_EQ(c->out_len, 0);
  EXPECT_EQ(c->out_pos, 0);
  EXPECT_TRUE(c->keep);
  EXPECT_EQ(c->timeout, 10);
  EXPECT_EQ(c->fruitless, 0);
  c->~connection();
}

TEST_F(connection_test, fields_stand_in_the_order_of_the_design) {
  std::unique_ptr<connection> c(new silent_connection);
  const std::vector<const void*> order = {&c->sock,   &c->ip,  &c->port,    &c->last_active,
                                          &c->server, &c->ssl, &c->out_len, &c->out_pos,
                                          &c->keep,   &c->out, &c->timeout};
  EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
}

TEST_F(connection_test, fields_have_their_widths) {
  EXPECT_EQ(sizeof(connection::out), 1048576u);
  EXPECT_LT(sizeof(connection), 1048576u + 4096u);
  EXPECT_TRUE((std::is_same_v<decltype(connection::ip), uint32_t>));
  EXPECT_TRUE((std::is_same_v<decltype(connection::last_active), int32_t>));
}

TEST_F(connection_test, last_active_keeps_the_low_32_bits_of_the_time) {
  faults::frozen_clock() = 0x180000005;
  std::unique_ptr<connection> c(new silent_connection);
  EXPECT_EQ(c->last_active, INT32_MIN + 5);
}

TEST_F(connection_test, none_is_selected_outside_of_a_turn) {
  EXPECT_EQ(connection::selected(), nullptr);
  EXPECT_EQ(&connection::selected(), &connection::selected());
}

// The index of a hook in the table of virtual functions. In the C++ ABI of Linux the first word of a pointer
// to member is the offset of the entry plus 1.
template <class F>
size_t slot(F hook) {
  size_t word = 0;
  memcpy(&word, &hook, sizeof(word));
  return word / sizeof(void*);
}

TEST_F(connection_test, hooks_stand_in_the_order_of_the_design) {
  EXPECT_EQ(slot(&connection::on_recv), 0u);
  EXPECT_EQ(slot(&connection::on_send), 1u);
}

TEST_F(connection_test, hooks_of_a_server_stand_in_the_order_of_the_design) {
  // The destructor comes first and fills two slots.
  const std::vector<size_t> slots = {
      slot(&abstract_server::start),     slot(&abstract_server::update),
      slot(&abstract_server::on_idle),   slot(&abstract_server::create_connection),
      slot(&abstract_server::on_accept), slot(&abstract_server::on_remove),
      slot(&abstract_server::recv),      slot(&abstract_server::send)};
  EXPECT_EQ(slots, (std::vector<size_t>{2, 3, 4, 5, 6, 7, 8, 9}));
}

// Reads the bytes from memory. The compiler must not use what it knows about uninitialised fields.
[[gnu::noinline]] bool is_zero(const volatile char* bytes, size_t size) {
  for (size_t i = 0; i < size; i++)
    if (bytes[i] != 0) return false;
  return true;
}

[[gnu::noinline]] void fill(volatile char* bytes, size_t size) {
  for (size_t i = 0; i < size; i++) bytes[i] = '\x5a';
}

// Lets the server make `count` objects, expects them to be zero, fills them with other values and ends them.
template <class T>
void expect_zero_and_spoil(int count) {
  server<T> maker(0);
  std::vector<T*> made;
  while (count-- > 0) {
    T* c = static_cast<T*>(maker.create_connection(0));
    made.push_back(c);
    ASSERT_TRUE(is_zero(c->out, sizeof(c->out)));
    if constexpr (sizeof(T) > sizeof(silent_connection)) {
      ASSERT_TRUE(is_zero(c->extra, sizeof(c->extra)));
      fill(c->extra, sizeof(c->extra));
    }
    fill(c->out, sizeof(c->out));
  }
  for (connection* c : made) delete c;
}

TEST_F(connection_test, memory_is_zero_when_an_ended_object_is_used_again) {
  for (int round = 0; round < 3; round++) {
    expect_zero_and_spoil<silent_connection>(2);
    expect_zero_and_spoil<larger_connection<5000>>(2);
  }
}

TEST_F(connection_test, memory_is_zero_for_every_size_of_class) {
  for (int round = 0; round < 2; round++) {
    expect_zero_and_spoil<larger_connection<1>>(2);
    expect_zero_and_spoil<larger_connection<4093>>(2);
    expect_zero_and_spoil<larger_connection<70000>>(2);
    expect_zero_and_spoil<larger_connection<1048576>>(2);
  }
}

TEST_F(connection_test, memory_is_zero_for_more_objects_than_are_kept) {
  expect_zero_and_spoil<silent_connection>(70);
  expect_zero_and_spoil<silent_connection>(70);
}

TEST_F(connection_test, server_makes_none_when_the_system_has_no_memory) {
  server<larger_connection<123456>> maker(0);
  faults::of()["mmap"] = {0, 1, ENOMEM};
  EXPECT_EQ(maker.create_connection(0), nullptr);
}

TEST_F(connection_test, plain_new_throws_when_the_system_has_no_memory) {
  faults::of()["mmap"] = {0, 1, ENOMEM};
  EXPECT_THROW(new larger_connection<234567>, std::bad_alloc);
}

struct failing_connection : silent_connection {
  failing_connection() {
    fill(out, sizeof(out));
    timeout = -1;
    throw std::string("no such connection");
  }
};

TEST_F(connection_test, memory_of_an_object_whose_constructor_throws_serves_again) {
  const int mapped = faults::calls()["mmap"];
  for (int i = 0; i < many; i++) {
    EXPECT_THROW(new failing_connection, std::string);
    EXPECT_THROW(new (std::nothrow) failing_connection, std::string);
  }
  EXPECT_LE(faults::calls()["mmap"], mapped + 1);
  expect_zero_and_spoil<silent_connection>(70);
}

TEST_F(connection_test, memory_is_zero_when_only_a_byte_was_written) {
  for (size_t at : {size_t{0}, size_t{4095}, size_t{4096}, size_t{524288}, sizeof(connection::out) - 1}) {
    auto* c = new silent_connection;
    fill(c->out + at, 1);
    delete c;
    std::unique_ptr<connection> again(new silent_connection);
    EXPECT_TRUE(is_zero(again->out, sizeof(again->out))) << at;
  }
}

// Writes `written` bytes into the buffer and reports `said` bytes.
struct writing_connection : silent_connection {
  int written = 0;
  int said = 0;
  bool fails = false;
  bool on_send(char* buf, int, int* len) override {
    fill(buf, static_cast<size_t>(written));
    if (fails) throw std::string("no more");
    *len = said;
    return true;
  }
  void write(int length) {
    written = said = length;
    out_len = 0;
    fill_output();
  }
};

// Ends the object and returns how many calls gave its pages back to the system. Expects that the next object
// gets the same place and finds zeros there. The neighbour keeps their row: if other tests have left many
// spare slots, a row without objects returns to the system.
int pages_returned_by_end_of(writing_connection* c) {
  const std::unique_ptr<connection> neighbour(new writing_connection);
  const int before = faults::calls()["madvise"];
  const void* const place = c;
  delete c;
  const int calls = faults::calls()["madvise"] - before;
  std::unique_ptr<connection> again(new writing_connection);
  EXPECT_EQ(again.get(), place);
  EXPECT_TRUE(is_zero(again->out, sizeof(again->out)));
  return calls;
}

TEST_F(connection_test, output_is_kept_with_its_length_and_how_far_the_buffer_was_ever_written) {
  std::unique_ptr<writing_connection> c(new writing_connection);
  c->keep = false;
  c->write(361);
  EXPECT_EQ(c->out_len, 361);
  EXPECT_TRUE(c->keep);
  EXPECT_EQ(c->out_filled, 361);
  c->write(10);
  EXPECT_EQ(c->out_len, 10);
  EXPECT_EQ(c->out_filled, 361);
  c->write(1000);
  EXPECT_EQ(c->out_filled, 1000);
}

TEST_F(connection_test, memory_of_little_output_is_cleared_without_a_call_into_the_system) {
  for (int length : {0, 1, 361, 5000, 16384}) {
    auto* c = new writing_connection;
    c->write(length);
    c->write(0);
    EXPECT_EQ(pages_returned_by_end_of(c), 0) << length;
  }
}

TEST_F(connection_test, memory_of_much_output_is_returned_to_the_system) {
  for (int length : {16385, 100000, connection::out_capacity}) {
    auto* c = new writing_connection;
    c->write(length);
    c->write(1);
    EXPECT_EQ(pages_returned_by_end_of(c), 1) << length;
  }
}

TEST_F(connection_test, memory_is_zero_again_when_a_hook_does_not_say_how_much_it_wrote) {
  for (bool has_written_before : {false, true}) {
    auto* negative = new writing_connection;
    if (has_written_before) negative->write(10);
    negative->written = 50000;
    negative->said = -1;
    negative->out_len = 0;
    negative->fill_output();
    EXPECT_EQ(pages_returned_by_end_of(negative), 1);
    auto* failing = new writing_connection;
    if (has_written_before) failing->write(10);
    failing->written = 50000;
    failing->fails = true;
    failing->out_len = 0;
    EXPECT_THROW(failing->fill_output(), std::string);
    EXPECT_EQ(pages_returned_by_end_of(failing), 1);
  }
}

struct first_base {
  char first[6000];
  virtual ~first_base() = default;
};

// Its memory begins before the connection in it.
struct second_base_connection : first_base, silent_connection {
  bool on_send(char* buf, int, int* len) override {
    fill(buf, 10);
    *len = 10;
    return true;
  }
};

TEST_F(connection_test, memory_is_zero_again_when_the_connection_is_the_second_base_of_its_object) {
  auto* c = new second_base_connection;
  const std::unique_ptr<connection> neighbour(new second_base_connection);  // keeps their row
  const void* const place = c;
  fill(c->first, sizeof(c->first));
  c->fill_output();
  delete c;
  std::unique_ptr<second_base_connection> again(new second_base_connection);
  EXPECT_EQ(static_cast<void*>(again.get()), place);
  EXPECT_TRUE(is_zero(again->first, sizeof(again->first)));
  EXPECT_TRUE(is_zero(again->out, sizeof(again->out)));
}

TEST_F(connection_test, ended_object_leaves_its_neighbours_as_they_are) {
  using wide = larger_connection<3000>;
  std::vector<std::unique_ptr<wide>> objects;
  for (int i = 0; i < 20; i++) {
    objects.emplace_back(new wide);
    fill(objects.back()->out, sizeof(wide::out));
    fill(objects.back()->extra, sizeof(wide::extra));
  }
  for (size_t i = 0; i < objects.size(); i += 2) objects[i].reset();
  for (size_t i = 1; i < objects.size(); i += 2) {
    for (char c : objects[i]->out) ASSERT_EQ(c, '\x5a') << i;
    for (char c : objects[i]->extra) ASSERT_EQ(c, '\x5a') << i;
  }
}

// Makes 64 objects and returns the largest number of them whose first fields share a set of the cache. The
// cache has 64 sets; the address within a page selects the set.
template <class T>
int most_fronts_in_one_set() {
  std::vector<std::unique_ptr<connection>> objects;
  std::map<uintptr_t, int> in_set;
  int most = 0;
  for (int i = 0; i < 64; i++) {
    objects.emplace_back(new T);
    most = std::max(most, ++in_set[reinterpret_cast<uintptr_t>(objects.back().get()) % 4096 / 64]);
  }
  return most;
}

TEST_F(connection_test, fronts_of_many_objects_spread_over_the_sets_of_a_cache) {
  using whole_pages = larger_connection<1048576 + 4096 - sizeof(silent_connection)>;
  EXPECT_LE(most_fronts_in_one_set<silent_connection>(), 8);
  EXPECT_LE(most_fronts_in_one_set<whole_pages>(), 8);
}

enum class memory_kind { mapped, resident };

int64_t bytes_of(memory_kind kind) {
  long pages[2] = {};
  FILE* file = fopen("/proc/self/statm", "r");
  EXPECT_EQ(fscanf(file, "%ld %ld", &pages[0], &pages[1]), 2);
  fclose(file);
  return pages[kind == memory_kind::resident] * sysconf(_SC_PAGESIZE);
}

int64_t resident_bytes() {
  return bytes_of(memory_kind::resident);
}

constexpr int64_t output_buffers = many * int64_t{connection::out_capacity};

TEST_F(connection_test, fresh_objects_take_far_less_memory_than_their_output_buffers) {
  std::vector<std::unique_ptr<connection>> objects;
  int64_t before = resident_bytes();
  for (int i = 0; i < many; i++) {
    objects.emplace_back(new silent_connection);
    fill(objects.back()->out, 1000);
  }
  EXPECT_LT(resident_bytes() - before, output_buffers / 4);
}

TEST_F(connection_test, ended_objects_give_back_their_output_buffers) {
  std::vector<std::unique_ptr<connection>> objects;
  for (int i = 0; i < many; i++) {
    objects.emplace_back(new silent_connection);
    fill(objects.back()->out, sizeof(objects.back()->out));
  }
  int64_t full = resident_bytes();
  objects.clear();
  EXPECT_GT(full - resident_bytes(), output_buffers / 8 * 7);
}

TEST_F(connection_test, ended_objects_give_back_all_but_some_of_their_addresses) {
  connection_memory memory;  // a new one, in which no other test has left spare slots
  std::vector<void*> objects;
  for (int i = 0; i < many; i++) objects.push_back(memory.take(sizeof(silent_connection)));
  int64_t full = bytes_of(memory_kind::mapped);
  for (void* object : objects) memory.give_back(object);
  int64_t given_back = full - bytes_of(memory_kind::mapped);
  EXPECT_GT(given_back, output_buffers / 2);
  EXPECT_LT(given_back, output_buffers / 8 * 7);
}

#if defined(__SANITIZE_ADDRESS__)

TEST_F(connection_test, places_of_ended_objects_are_hidden_from_use_until_they_are_given_back) {
  connection_memory memory;
  std::vector<void*> places;
  for (int i = 0; i < many; i++) places.push_back(memory.take(sizeof(silent_connection)));
  int hidden = 0;
  for (const void* place : places) hidden += __asan_address_is_poisoned(place);
  EXPECT_EQ(hidden, 0);
  for (void* place : places) memory.give_back(place);
  for (const void* place : places) hidden += __asan_address_is_poisoned(place);
  EXPECT_GT(hidden, 0);
  EXPECT_LT(hidden, many / 2);
}

#endif

}  // namespace
