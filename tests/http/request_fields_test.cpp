// The fields of an http_connection: their order, their first values, and what reset() does to them.

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <type_traits>

#include "tests/http/recorder.h"
#include "tests/support/slots.h"

namespace {

const char fresh_fields[] =
    "headers_received 0\nhead \"\"\nwritten 0\nresponse_parts 0\nmax_request_length 104857600\n"
    "request_length 0\ncontent_received 0\ncontent_length 0\ncontent \"\"\nkeep_alive 1\n"
    "request line { \"\", \"\", \"\", \"\", \"\", \"\" }\nresponse_headers \"\"\nwebsocket_enabled 1\n"
    "upgraded 0\nmessage \"\"\nmax_message_length 10485760\nmax_frame_length 1048576\nsubscriptions 0\n";

uintptr_t at(const void* member) {
  return reinterpret_cast<uintptr_t>(member);
}

template <class F>
constexpr bool is_int32(F) {
  return std::is_same<F, int32_t http_connection::*>::value;
}

}  // namespace

TEST(http_connection, fields_start_empty_and_with_the_limits_of_one_request) {
  auto c = std::make_unique<http_connection>();
  EXPECT_EQ(all_fields(*c), fresh_fields);
  EXPECT_EQ(c->subscriptions.hash, base::tovel_hash);
  EXPECT_EQ(c->timeout, 10);
}

TEST(http_connection, reset_restores_the_fields_of_a_request_and_no_others) {
  for (bool flag : {false, true}) {
    auto c = std::make_unique<http_connection>();
    c->headers_received = c->written = true;
    c->keep_alive = c->websocket_enabled = c->upgraded = flag;
    c->max_request_length = c->request_length = c->content_received = c->content_length = 7;
    c->max_message_length = 8;
    c->max_frame_length = 9;
    c->timeout = 11;
    for (std::string* s : {&c->head, &c->content, &c->message, &c->response_headers, &c->cookie, &c->query,
                           &c->path, &c->version, &c->target, &c->method}) {
      *s = "x";
    }
    c->response_parts.push(new http_connection::response_part);
    c->subscriptions.set("news", {});
    c->reset();
    auto expected = std::make_unique<http_connection>();
    expected->keep_alive = expected->websocket_enabled = expected->upgraded = flag;
    expected->max_message_length = 8;
    expected->max_frame_length = 9;
    expected->response_parts.push(new http_connection::response_part);
    expected->subscriptions.set("news", {});
    EXPECT_EQ(all_fields(*c), all_fields(*expected));
    EXPECT_EQ(c->timeout, 11);
    c->upgraded = expected->upgraded = false;  // the channel of the subscription does not exist
  }
}

TEST(http_connection, fields_stand_in_the_order_of_the_design) {
  auto c = std::make_unique<http_connection>();
  const uintptr_t order[] = {at(&c->sock),
                             at(&c->headers_received),
                             at(&c->head),
                             at(&c->written),
                             at(&c->response_parts),
                             at(&c->max_request_length),
                             at(&c->request_length),
                             at(&c->content_received),
                             at(&c->content_length),
                             at(&c->content),
                             at(&c->keep_alive),
                             at(&c->method),
                             at(&c->target),
                             at(&c->version),
                             at(&c->path),
                             at(&c->query),
                             at(&c->cookie),
                             at(&c->response_headers),
                             at(&c->websocket_enabled),
                             at(&c->upgraded),
                             at(&c->message),
                             at(&c->max_message_length),
                             at(&c->max_frame_length),
                             at(&c->subscriptions)};
  for (size_t i = 1; i < std::size(order); i++) EXPECT_LT(order[i - 1], order[i]) << "field " << i;

  http_connection::response_part p;
  const uintptr_t part_order[] = {at(&p.file), at(&p.remaining), at(&p.data), at(&p.thread), at(&p.timeout)};
  for (size_t i = 1; i < std::size(part_order); i++) EXPECT_LT(part_order[i - 1], part_order[i]) << i;
}

TEST(http_connection, counters_and_limits_are_32_bits_wide_and_signed) {
  EXPECT_TRUE(is_int32(&http_connection::max_request_length));
  EXPECT_TRUE(is_int32(&http_connection::request_length));
  EXPECT_TRUE(is_int32(&http_connection::content_received));
  EXPECT_TRUE(is_int32(&http_connection::content_length));
  EXPECT_TRUE(is_int32(&http_connection::max_message_length));
  EXPECT_TRUE(is_int32(&http_connection::max_frame_length));
  EXPECT_TRUE((std::is_same<decltype(http_connection::response_part::timeout), int32_t>::value));
  EXPECT_TRUE((std::is_same<decltype(http_connection::response_part::remaining), double>::value));
}

TEST(http_connection, hooks_have_the_virtual_slots_of_the_design) {
  EXPECT_EQ(slot_of(&http_connection::on_recv), 0u);
  EXPECT_EQ(slot_of(&http_connection::on_send), 1u);
  // Two slots belong to the destructors.
  EXPECT_EQ(slot_of(&http_connection::on_headers), 4u);
  EXPECT_EQ(slot_of(&http_connection::on_data), 5u);
  EXPECT_EQ(slot_of(&http_connection::on_upgrade), 6u);
  EXPECT_EQ(slot_of(&http_connection::on_message), 7u);
  EXPECT_EQ(slot_of(&http_connection::on_request), 8u);
}

TEST(http_connection, response_part_starts_as_an_empty_run_of_bytes) {
  http_connection::response_part part;
  EXPECT_EQ(part.file, nullptr);
  EXPECT_EQ(part.remaining, -1.0);
  EXPECT_EQ(part.data, "");
  EXPECT_EQ(part.thread, nullptr);
}

TEST(http_connection, job_starts_undone_with_a_null_result) {
  http_connection::job job;
  EXPECT_FALSE(job.done);
  EXPECT_EQ(job.result.kind, var::null_kind);
}
