// What the two ends of a pipe have in common: how they drain their queue and fill the other.

#include "tests/proxy/proxy_fixtures.h"

namespace {

// The client's end drains to_client. It gets the bytes for the upstream as bytes of a body.
struct client_side {
  proxy_pipe pipe;  // the tests set refs by hand; it must never reach 0
  http_proxy end;

  client_side() {
    end.pipe = &pipe;
    end.idle_pipe.refs = 1;
  }
  ~client_side() { pipe.refs = 2; }
  base::byte_queue& own_queue() { return pipe.to_client; }
  base::byte_queue& other_queue() { return pipe.to_upstream; }
  void receive(char* data, int len) { end.on_data(data, len); }
};

struct upstream_side {
  proxy_pipe pipe;
  proxy_connection end{-1, &pipe};

  ~upstream_side() { pipe.refs = 2; }
  base::byte_queue& own_queue() { return pipe.to_upstream; }
  base::byte_queue& other_queue() { return pipe.to_client; }
  void receive(char* data, int len) { end.on_recv(data, len); }
};

// On the heap, because a connection has over 1 MiB.
template <class Side>
struct relay_side : testing::Test {
  std::unique_ptr<Side> side = std::make_unique<Side>();

  void set_partner(bool is_alive) { side->pipe.refs = is_alive ? 2 : 1; }

  void expect_output(int cap, const std::string& bytes, bool stays_open) {
    output o = ask(side->end, cap);
    EXPECT_TRUE(o.bytes == bytes) << o.bytes.size() << " instead of " << bytes.size();
    EXPECT_EQ(o.stays_open, stays_open);
  }
};

using sides = testing::Types<client_side, upstream_side>;

}  // namespace

TYPED_TEST_SUITE(relay_side, sides, );

TYPED_TEST(relay_side, queue_that_fits_is_emptied_by_one_call) {
  this->set_partner(true);
  for (size_t length : {0u, 1u, 9u, 10u}) {
    const std::string bytes = random_bytes(length);
    this->side->own_queue() = bytes;
    this->expect_output(10, bytes, true);
    EXPECT_TRUE(this->side->own_queue().empty());
  }
}

TYPED_TEST(relay_side, longer_queue_is_sent_in_successive_calls_in_order) {
  this->set_partner(true);
  this->side->own_queue() = "0123456789abcdefghijklmno";
  this->expect_output(10, "0123456789", true);
  EXPECT_EQ(this->side->own_queue(), "abcdefghijklmno");
  this->expect_output(10, "abcdefghij", true);
  this->expect_output(10, "klmno", true);
  this->expect_output(10, "", true);
}

TYPED_TEST(relay_side, queue_of_several_output_buffers_is_sent_without_loss) {
  this->set_partner(false);
  constexpr size_t cap = connection::out_capacity;
  const std::string bytes = random_bytes(3 * cap + 17);
  this->side->own_queue() = bytes;
  for (size_t at = 0; at < bytes.size(); at += cap)
    this->expect_output(connection::out_capacity, bytes.substr(at, cap), at + cap < bytes.size());
}

TYPED_TEST(relay_side, bytes_appended_between_two_calls_go_after_those_that_wait) {
  this->set_partner(true);
  this->side->own_queue() = "0123456789ab";
  this->expect_output(10, "0123456789", true);
  this->side->own_queue() += "cdefghijkl";
  this->expect_output(10, "abcdefghij", true);
  this->expect_output(10, "kl", true);
}

TYPED_TEST(relay_side, side_whose_partner_is_alive_stays_open_with_nothing_to_send) {
  this->set_partner(true);
  this->expect_output(10, "", true);
}

TYPED_TEST(relay_side, side_that_is_alone_sends_what_is_left_and_then_closes) {
  this->set_partner(false);
  this->side->own_queue() = "0123456789ab";
  this->expect_output(10, "0123456789", true);
  this->expect_output(10, "ab", false);
  this->expect_output(10, "", false);
}

TYPED_TEST(relay_side, side_that_is_alone_closes_with_a_last_piece_that_fits_exactly) {
  this->set_partner(false);
  this->side->own_queue() = "0123456789";
  this->expect_output(10, "0123456789", false);
}

TYPED_TEST(relay_side, received_bytes_go_to_the_queue_of_the_other_direction_as_they_are) {
  this->set_partner(true);
  const std::string bytes = random_bytes(100000);
  std::string expected;
  for (const std::string& piece : {std::string("first"), std::string(1, '\0'), bytes, std::string()}) {
    std::vector<char> buf(piece.begin(), piece.end());
    this->side->receive(buf.data(), static_cast<int>(buf.size()));
    expected += piece;
    EXPECT_TRUE(this->side->other_queue() == expected);
  }
  EXPECT_TRUE(this->side->own_queue().empty());
}
