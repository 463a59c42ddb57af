// The extended lengths of frames. The server reads them at other places than RFC 6455 says, and writes them
// as the RFC says.

#include <gtest/gtest.h>

#include "tests/http/upgraded_connection.h"

namespace {

using strings = std::vector<std::string>;
using websocket_lengths = upgraded_connection;

// A frame with a payload of 8 bytes that overlaps the end of its length, and its mask (1, 2, 4, 8). The first
// six bytes of the payload are read as 0^1, 0^2, 1^4, 2^8, 4^1, 8^2.
const std::string overlapping_frame = head_127(fin | text, 8) + std::string({'A' ^ 4, 'B' ^ 8});
const std::string overlapping_payload =
    "\x01\x02\x05\x0A\x05\x0A"
    "AB";

}  // namespace

TEST_F(websocket_lengths, of_two_bytes_are_read_least_significant_first) {
  const std::string payload(200, 'p');
  std::string swapped = frame_126(fin | text, payload);
  std::swap(swapped[2], swapped[3]);
  receive(c(), swapped);
  EXPECT_TRUE(messages().empty()) << "it waits for 51200 bytes";
  EXPECT_EQ(c().content, swapped);
  expect_open();
  EXPECT_EQ(console_.text(), "");

  reconnect();
  receive(c(), frame_126(fin | text, payload));
  EXPECT_EQ(messages(), strings{payload});
  EXPECT_EQ(c().content, "");
}

TEST_F(websocket_lengths, of_two_bytes_may_be_any_up_to_65535) {
  for (size_t n : {0u, 1u, 3u, 125u, 126u, 255u, 256u, 65535u}) {
    reconnect();
    const std::string frame = frame_126(fin | text, std::string(n, 'q'));
    receive(c(), frame.substr(0, 7));
    if (n > 0) receive(c(), frame.substr(7, frame.size() - 8));
    EXPECT_TRUE(messages().empty()) << n;
    receive(c(), frame.substr(frame.size() - 1));
    EXPECT_TRUE(messages() == strings{std::string(n, 'q')}) << n;
    EXPECT_EQ(c().content, "");
  }
}

TEST_F(websocket_lengths, of_eight_bytes_stand_at_8_the_mask_at_16_and_the_payload_at_14) {
  for (const chunks& delivery : every_delivery(overlapping_frame + short_frame(fin | text, "next"))) {
    reconnect();
    receive_all(c(), delivery);
    EXPECT_EQ(messages(), (strings{overlapping_payload, "next"}));
    EXPECT_EQ(c().content, "");
    expect_open();
  }
}

TEST_F(websocket_lengths, of_eight_bytes_may_be_a_mebibyte) {
  std::string payload(1048576, '\0');
  for (size_t i = 0; i < payload.size(); i++) payload[i] = static_cast<char>(i * 5 + (i >> 9));
  const std::string mask = "\x01\x02\x04\x08";
  const std::string frame = head_127(fin | text, payload.size(), mask) + masked(payload, mask).substr(6);
  c().content = frame.substr(0, frame.size() - 1);
  c().read_frames();
  EXPECT_TRUE(messages().empty());
  receive(c(), frame.substr(frame.size() - 1));
  ASSERT_EQ(messages().size(), 1u);
  // Only the third byte of the length is not zero. It stands before the overlap with zeros and the mask.
  EXPECT_TRUE(messages()[0] == overlapping_payload.substr(0, 6) + payload.substr(6));
  EXPECT_EQ(c().content, "");
}

// The payload begins before the mask. After an empty payload, two bytes of the length are left over.
TEST_F(websocket_lengths, of_eight_bytes_and_value_zero_consume_fourteen) {
  receive(c(), head_127(fin | text, 0).substr(0, 16));
  EXPECT_EQ(messages(), strings{""});
  EXPECT_EQ(c().content, std::string(2, '\0'));
  expect_open();
}

TEST_F(websocket_lengths, that_have_not_arrived_are_awaited) {
  const std::string frames[] = {frame_126(fin | text, ""), head_127(fin | text, 5)};
  const size_t complete[] = {8, 20};
  for (const std::string& before : {std::string(), short_frame(fin | text, "first, and long enough")}) {
    for (size_t i : {0u, 1u}) {
      for (size_t n = 0; n < complete[i]; n++) {
        reconnect();
        c().content = before + frames[i].substr(0, n);
        c().content.shrink_to_fit();
        c().read_frames();
        EXPECT_EQ(messages().size(), before.empty() ? 0u : 1u) << n;
        EXPECT_EQ(c().content, frames[i].substr(0, n));
        EXPECT_EQ(console_.text(), "") << n;
        expect_open();
      }
    }
  }
}

TEST_F(websocket_lengths, beyond_the_limit_are_refused_once_the_last_of_their_bytes_is_there) {
  const struct {
    std::string head;
    size_t needed;
  } cases[] = {{frame_126(fin | text, std::string(201, 'a')), 8},
               {head_127(fin | text, 201), 16},
               {head_127(fin | text, UINT64_MAX), 16}};
  for (const auto& t : cases) {
    reconnect();
    c().max_frame_length = 200;
    for (const std::string& one : byte_by_byte(t.head.substr(0, t.needed - 1))) receive(c(), one);
    EXPECT_EQ(console_.text(), "") << "a length is read when it is complete";
    expect_open();
    receive(c(), t.head.substr(t.needed - 1, 1));
    expect_fault("Warning! Frame exceeds max length of 200.\n", t.head.substr(0, t.needed));
  }
}

// The first frame waits until the input has 8 bytes. For a later frame, these 8 bytes include the frames
// before it.
TEST_F(websocket_lengths, of_two_bytes_after_another_frame_are_read_as_soon_as_six_bytes_are_there) {
  const std::string before = short_frame(fin | text, "one");
  for (size_t n : {5u, 6u, 7u}) {
    reconnect();
    c().max_frame_length = 200;
    const std::string input = before + frame_126(fin | text, std::string(201, 'a')).substr(0, n);
    receive(c(), input);
    EXPECT_EQ(messages(), strings{"one"});
    if (n >= 6) {
      expect_fault("Warning! Frame exceeds max length of 200.\n", input);
    } else {
      EXPECT_EQ(c().content, input.substr(before.size()));
      expect_open();
    }
  }
}

TEST_F(websocket_lengths, of_eight_bytes_after_another_frame_are_read_when_all_eight_are_there) {
  const std::string before = short_frame(fin | text, "one");
  for (size_t n = 6; n <= 16; n++) {
    reconnect();
    const std::string input = before + head_127(fin | text, UINT64_MAX).substr(0, n);
    receive(c(), input);
    if (n == 16) {
      expect_fault("Warning! Frame exceeds max length of 1048576.\n", input);
    } else {
      EXPECT_EQ(console_.text(), "") << n;
      EXPECT_EQ(c().content, input.substr(before.size()));
      expect_open();
    }
  }
}

TEST_F(websocket_lengths, whose_mask_has_not_arrived_are_awaited) {
  for (size_t length = 1; length <= 6; length++) {
    const std::string frame = head_127(fin | text, length);
    const size_t needed = length < 4 ? 16 + length : 20;
    for (size_t n = 14 + length; n <= needed; n++) {
      reconnect();
      receive(c(), frame.substr(0, n));
      EXPECT_EQ(messages().size(), n < needed ? 0u : 1u) << length << " bytes, of which " << n << " came";
      EXPECT_EQ(c().content.size(), n < needed ? n : n - 14 - length);
    }
  }
}

TEST_F(websocket_lengths, are_written_as_the_rfc_says_and_left_out_beyond_a_mebibyte) {
  using namespace std::string_literals;
  const struct {
    size_t payload;
    std::string header;
  } cases[] = {
      {0, "\x81\x00"s},
      {1, "\x81\x01"s},
      {125, "\x81\x7D"s},
      {126, "\x81\x7E\x00\x7E"s},
      {256, "\x81\x7E\x01\x00"s},
      {65535, "\x81\x7E\xFF\xFF"s},
      {65536, "\x81\x7F\x00\x00\x00\x00\x00\x01\x00\x00"s},
      {70000, "\x81\x7F\x00\x00\x00\x00\x00\x01\x11\x70"s},
      {1048575, "\x81\x7F\x00\x00\x00\x00\x00\x0F\xFF\xFF"s},
      {1048576, "\x81"s},
      {1048577, "\x81"s},
  };
  for (const auto& t : cases) {
    reconnect();
    const std::string payload(t.payload, 's');
    c().send_message(payload, text);
    ASSERT_EQ(c().response_parts.count, 1) << "never split";
    EXPECT_TRUE(c().response_parts.front()->data == t.header + payload) << t.payload;
    EXPECT_EQ(console_.text(),
              t.payload < 1048576
                  ? ""
                  : "send_message() error! Message too long: " + std::to_string(t.payload) + "\n");
    EXPECT_TRUE(send_everything(c()) == t.header + payload) << t.payload;
  }
}

TEST_F(websocket_lengths, beyond_the_output_buffer_make_slices_of_it) {
  const std::string payload(1048575, 's');
  c().send_message(payload, binary);
  c().send_message("x", text);
  EXPECT_EQ(send_once(c()).bytes.size(), 1048576u);
  EXPECT_EQ(send_once(c()).bytes, "sssssssss");
  EXPECT_EQ(send_once(c()).bytes, "\x81\x01x");
}

TEST(websocket_sender, sets_fin_on_any_opcode_and_asks_for_neither_upgrade_nor_answer) {
  auto c = std::make_unique<http_connection>();
  for (int opcode : {0, 1, 2, 8, 9, 10, 15, fin | text}) {
    c->send_message("x", opcode);
    EXPECT_EQ(send_everything(*c), byte(static_cast<uint64_t>(opcode) | 0x80) + "\x01x");
  }
  EXPECT_FALSE(c->written);
  c->written = true;
  c->send_message("y", text);
  c->send_message("z", text);
  EXPECT_EQ(send_once(*c).bytes, "\x81\x01y") << "queued in order, a part each";
  EXPECT_EQ(send_once(*c).bytes, "\x81\x01z");
}
