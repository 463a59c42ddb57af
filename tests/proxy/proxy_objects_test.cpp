// The objects of the relay alone: their first state, and what they leave alone.

#include <fcntl.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <type_traits>

#include "tests/proxy/proxy_fixtures.h"
#include "tests/support/slots.h"

namespace {

using http_proxy_object = proxy_object<http_proxy>;
using reverse_proxy_object = proxy_object<reverse_proxy>;

template <class T>
void expect_initial_values(T& proxy) {
  EXPECT_EQ(proxy.upstream_host, "");
  EXPECT_EQ(proxy.upstream_port, 0);
  EXPECT_EQ(proxy.pipe, &proxy.idle_pipe);
  EXPECT_EQ(proxy.idle_pipe.refs, 2);
  EXPECT_TRUE(proxy.idle_pipe.to_upstream.empty());
  EXPECT_TRUE(proxy.idle_pipe.to_client.empty());
  EXPECT_FALSE(proxy.websocket_enabled);
  EXPECT_TRUE(proxy.keep_alive);
  EXPECT_FALSE(proxy.upgraded);
  EXPECT_EQ(proxy.timeout, 10);
}

uintptr_t at(const void* field) {
  return reinterpret_cast<uintptr_t>(field);
}

void expect_order(const std::vector<uintptr_t>& places) {
  EXPECT_TRUE(std::is_sorted(places.begin(), places.end())) << testing::PrintToString(places);
}

}  // namespace

TEST(http_proxy, no_server_is_assigned_at_first) {
  EXPECT_EQ(http_proxy::g_server(), nullptr);
}

TEST(reverse_proxy, host_map_is_empty_at_first) {
  EXPECT_EQ(reverse_proxy::hosts().count, 0u);
}

TEST(http_proxy, fields_stand_in_the_order_of_the_design) {
  auto proxy = std::make_unique<http_proxy>();
  expect_order({at(&proxy->subscriptions), at(&proxy->upstream_host), at(&proxy->upstream_port),
                at(&proxy->pipe), at(&proxy->idle_pipe)});
  EXPECT_TRUE((std::is_same_v<decltype(proxy->upstream_port), int32_t>));
}

TEST(http_proxy, hooks_have_the_virtual_slots_of_the_design) {
  EXPECT_EQ(slot_of(&http_proxy::on_recv), 0u);
  EXPECT_EQ(slot_of(&http_proxy::on_send), 1u);
  // Two slots belong to the destructors.
  EXPECT_EQ(slot_of(&http_proxy::on_headers), 4u);
  EXPECT_EQ(slot_of(&http_proxy::on_data), 5u);
  EXPECT_EQ(slot_of(&http_proxy::on_upgrade), 6u);
  EXPECT_EQ(slot_of(&http_proxy::on_message), 7u);
  EXPECT_EQ(slot_of(&http_proxy::on_request), 8u);
  EXPECT_EQ(slot_of(&http_proxy::should_block), 9u);
}

TEST(proxy_connection, hooks_have_the_virtual_slots_of_the_design) {
  EXPECT_EQ(slot_of(&proxy_connection::on_recv), 0u);
  EXPECT_EQ(slot_of(&proxy_connection::on_send), 1u);
}

TEST(proxy_pipe, fields_stand_in_the_order_of_the_design) {
  proxy_pipe pipe;
  expect_order({at(&pipe.refs), at(&pipe.to_upstream), at(&pipe.to_client)});
  EXPECT_TRUE((std::is_same_v<decltype(pipe.refs), int32_t>));
}

TEST(reverse_proxy, adds_no_fields) {
  EXPECT_EQ(sizeof(reverse_proxy), sizeof(http_proxy));
}

TEST_F(http_proxy_object, starts_on_its_idle_pipe) {
  expect_initial_values(*proxy);
}

TEST_F(reverse_proxy_object, starts_on_its_idle_pipe) {
  expect_initial_values(*proxy);
}

TEST_F(reverse_proxy_object, starts_on_its_idle_pipe_when_a_server_makes_it) {
  std::unique_ptr<connection> made(relay.create_connection(0x0700000a));
  ASSERT_NE(made, nullptr);
  expect_initial_values(dynamic_cast<reverse_proxy&>(*made));
}

// Plain objects of http_proxy block nothing.
TEST_F(http_proxy_object, no_host_is_blocked) {
  for (const char* host : {"", "localhost", "a.example"}) EXPECT_FALSE(proxy->should_block(host)) << host;
}

TEST_F(http_proxy_object, end_of_a_request_is_not_answered) {
  proxy->on_request();
  EXPECT_EQ(proxy->response_parts.count, 0);
  EXPECT_EQ(to_client(), "");
  EXPECT_EQ(ask(*proxy).bytes, "");
}

TEST_F(http_proxy_object, what_the_response_writer_queues_is_never_sent) {
  proxy->write("HTTP/1.1 200 OK\r\n", "hello");
  ASSERT_GT(proxy->response_parts.count, 0);
  output o = ask(*proxy);
  EXPECT_EQ(o.bytes, "");
  EXPECT_TRUE(o.stays_open);
}

TEST_F(http_proxy_object, client_that_never_proxied_stays_open) {
  for (int i = 0; i < 3; i++) {
    output o = ask(*proxy);
    EXPECT_EQ(o.bytes, "");
    EXPECT_TRUE(o.stays_open);
  }
}

TEST_F(http_proxy_object, body_without_an_upstream_is_queued_until_the_client_is_asked_for_output) {
  std::string body = "body";
  for (const char* wanted : {"body", "bodybody"}) {
    proxy->on_data(body.data(), 4);
    EXPECT_EQ(to_upstream(), wanted);
  }
  EXPECT_EQ(proxy->content, "");
  EXPECT_TRUE(ask(*proxy).stays_open);
  EXPECT_EQ(to_upstream(), "");
}

TEST_F(http_proxy_object, empty_or_negative_run_of_body_bytes_is_nothing) {
  std::string body = "body";
  for (int len : {0, -1}) proxy->on_data(body.data(), len);
  EXPECT_EQ(to_upstream(), "");
}

// A connection is not asked for output before its last output is sent. A client can delay that without limit.
TEST_F(http_proxy_object, body_of_a_client_that_does_not_read_does_not_pile_up) {
  proxy->out_len = 1;
  for (const char* piece : {"first", "second"}) {
    std::string bytes = piece;
    proxy->on_data(bytes.data(), static_cast<int>(bytes.size()));
    EXPECT_EQ(to_upstream(), piece);
  }
}

// The test makes the object in its own memory, which it can still read after the object has ended.
TEST(http_proxy, client_that_never_proxied_ends_with_one_reference_to_its_idle_pipe) {
  constexpr size_t words = sizeof(http_proxy) / sizeof(std::max_align_t) + 1;
  std::vector<std::max_align_t> place(words);
  auto* proxy = new (static_cast<void*>(place.data())) http_proxy;
  const char* refs_place = reinterpret_cast<const char*>(&proxy->idle_pipe.refs);
  proxy->~http_proxy();
  int32_t refs = 0;
  memcpy(&refs, refs_place, sizeof(refs));
  EXPECT_EQ(refs, 1);
}

TEST(proxy_connection, takes_part_in_the_pipe_and_never_times_out) {
  faults::clock_offset() = 5000;
  proxy_pipe pipe;
  const time_t before = time(nullptr);
  auto upstream = std::make_unique<proxy_connection>(77, &pipe);
  EXPECT_EQ(upstream->pipe, &pipe);
  EXPECT_EQ(pipe.refs, 2);
  EXPECT_EQ(upstream->sock, 77);
  EXPECT_EQ(upstream->timeout, -1);
  EXPECT_GE(upstream->last_active, before);
  EXPECT_LE(upstream->last_active, time(nullptr));
  EXPECT_EQ(upstream->ip, 0u);
  EXPECT_EQ(upstream->port, 0);
  EXPECT_EQ(upstream->server, nullptr);
  EXPECT_EQ(upstream->ssl, nullptr);
  EXPECT_EQ(upstream->out_len, 0);
  EXPECT_EQ(upstream->out_pos, 0);
  upstream.reset();
  EXPECT_EQ(pipe.refs, 1);
  faults::clear();
}

TEST(proxy_connection, its_socket_is_left_to_the_server_to_close) {
  const int sock = socket(AF_INET, SOCK_STREAM, 0);
  proxy_pipe pipe;
  delete new proxy_connection(sock, &pipe);
  EXPECT_NE(fcntl(sock, F_GETFD), -1);
  EXPECT_EQ(close(sock), 0);
}
