// read_frames(): what a client's frames do, whole, cut and one after the other.

#include <gtest/gtest.h>

#include "tests/http/upgraded_connection.h"

namespace {

using strings = std::vector<std::string>;
using websocket_frames = upgraded_connection;

}  // namespace

TEST_F(websocket_frames, are_decoded_once_complete_however_they_are_cut) {
  const std::string input = short_frame(fin | text, "Hello") + short_frame(fin | text, "") +
                            short_frame(fin | ping, "x") + frame_126(binary, "ab") +
                            short_frame(fin | continuation, std::string("\0\xFF", 2)) +
                            short_frame(fin | pong, "p") + short_frame(fin | text, std::string(125, 'z'));
  for (const chunks& delivery : every_delivery(input)) {
    reconnect();
    receive_all(c(), delivery);
    EXPECT_EQ(messages(), (strings{"Hello", "", std::string("ab\0\xFF", 4), std::string(125, 'z')}));
    EXPECT_EQ(console_.text(), "Warning! Unhandled opcode: 10\n");
    EXPECT_EQ(c().content, "");
    EXPECT_EQ(c().message, "");
    expect_open();
    EXPECT_EQ(send_everything(c()), std::string("\x81\x05Hello\x81\x00\x8A\x01x\x81\x04"
                                                "ab\0\xFF\x81\x7D",
                                                20) +
                                        std::string(125, 'z'));
    EXPECT_TRUE(send_once(c()).stays);
  }
}

TEST_F(websocket_frames, masked_as_in_the_rfc_are_read) {
  receive(c(), "\x81\x85\x37\xFA\x21\x3D\x7F\x9F\x4D\x51\x58");  // section 5.7
  EXPECT_EQ(messages(), strings{"Hello"});
  EXPECT_EQ(send_everything(c()), "\x81\x05Hello");
}

TEST_F(websocket_frames, in_fragments_make_one_message_whatever_their_opcodes) {
  const int firsts[] = {text, binary, continuation};
  for (int first : firsts) {
    for (int last : firsts) {
      reconnect();
      receive(c(), short_frame(first, "Hel") + short_frame(continuation, "") + short_frame(fin | last, "lo"));
      EXPECT_EQ(messages(), strings{"Hello"}) << first << ", " << last;
      EXPECT_EQ(send_everything(c()), "\x81\x05Hello");
    }
  }
}

TEST_F(websocket_frames, final_ones_are_a_message_each_even_a_continuation_of_nothing) {
  for (int opcode : {continuation, text, binary}) {
    reconnect();
    receive(c(), short_frame(fin | opcode, "Hello") + short_frame(fin | opcode, ""));
    EXPECT_EQ(messages(), (strings{"Hello", ""})) << opcode;
    EXPECT_EQ(send_everything(c()), std::string("\x81\x05Hello\x81\x00", 9));
    expect_open();
  }
}

TEST_F(websocket_frames, gather_in_message_until_the_final_one) {
  receive(c(), short_frame(text, "Hel"));
  EXPECT_EQ(c().message, "Hel");
  EXPECT_EQ(c().content, "");
  EXPECT_TRUE(messages().empty());
  receive(c(), short_frame(fin | ping, "?"));
  receive(c(), short_frame(fin | 11, "?"));
  EXPECT_EQ(c().message, "Hel") << "other frames may come in between";
  receive(c(), short_frame(fin | continuation, "lo") + short_frame(text, "n"));
  EXPECT_EQ(messages(), strings{"Hello"});
  EXPECT_EQ(c().message, "n") << "emptied after on_message";
}

TEST_F(websocket_frames, reserved_bits_are_ignored) {
  for (int bits : {0x10, 0x20, 0x40, 0x70}) receive(c(), short_frame(fin | bits | text, "x"));
  EXPECT_EQ(messages(), (strings{"x", "x", "x", "x"}));
  for (int bits : {0x10, 0x20, 0x40, 0x70}) receive(c(), short_frame(bits | text, "y"));
  EXPECT_EQ(c().message, "yyyy") << "none of them ends a message";
  EXPECT_EQ(messages().size(), 4u);
  EXPECT_EQ(console_.text(), "");
  expect_open();
}

TEST_F(websocket_frames, ping_is_answered_with_the_same_payload_even_without_fin) {
  const std::string long_payload(200, 'l');
  receive(c(), short_frame(ping, "") + short_frame(fin | ping, "x") + frame_126(fin | ping, long_payload));
  EXPECT_EQ(send_everything(c()), std::string("\x8A\x00\x8A\x01x\x8A\x7E\x00\xC8", 9) + long_payload);
  EXPECT_TRUE(messages().empty());
}

TEST_F(websocket_frames, of_other_opcodes_are_named_and_passed_over) {
  for (int opcode : {3, 4, 5, 6, 7, 10, 11, 12, 13, 14, 15}) {
    for (int first_byte : {opcode, fin | opcode}) {
      reconnect();
      receive(c(), short_frame(first_byte, "ignored") + short_frame(fin | text, "next"));
      EXPECT_EQ(console_.text(), "Warning! Unhandled opcode: " + std::to_string(opcode) + "\n");
      EXPECT_EQ(messages(), strings{"next"});
      EXPECT_EQ(c().content, "");
      expect_open();
    }
  }
}

TEST_F(websocket_frames, close_ends_the_connection_silently_and_without_an_answer) {
  const std::string input = short_frame(fin | close_opcode, "\x03\xE8") + short_frame(fin | text, "after");
  receive(c(), input);
  EXPECT_TRUE(messages().empty());
  EXPECT_EQ(c().response_parts.count, 0);
  expect_fault("", input);
}

TEST_F(websocket_frames, before_a_fault_are_handled_but_stay_in_the_input) {
  const std::string good = short_frame(fin | text, "one") + short_frame(text, "tw");
  const std::string too_long = byte(fin | text) + byte(0xFD) + "mask";
  const struct {
    std::string bad, line;
  } cases[] = {
      {short_frame(fin | close_opcode, ""), ""},
      {std::string("\x81\x00\x00\x00\x00\x00", 6), "Warning! Incoming frame has no mask.\n"},
      {too_long, "Warning! Frame exceeds max length of 100.\n"},
      {short_frame(continuation, std::string(9, 'm')), "Warning! Message exceeds max length of 10.\n"},
  };
  for (const auto& t : cases) {
    reconnect();
    c().max_frame_length = 100;
    c().max_message_length = 10;
    receive(c(), good + t.bad + "rest");
    EXPECT_EQ(messages(), strings{"one"});
    expect_fault(t.line, good + t.bad + "rest");
    receive(c(), short_frame(fin | text, "more"));
    EXPECT_EQ(messages(), strings{"one"}) << "nothing is read any more";
    EXPECT_EQ(c().content, good + t.bad + "rest" + short_frame(fin | text, "more"));
  }
}

TEST_F(websocket_frames, without_a_mask_are_refused_as_soon_as_six_bytes_are_there) {
  const std::string input("\x81\x05Hel", 5);
  receive(c(), input);
  EXPECT_EQ(console_.text(), "");
  expect_open();
  receive(c(), "l");
  expect_fault("Warning! Incoming frame has no mask.\n", input + "l");
}

TEST_F(websocket_frames, longer_than_the_limit_are_refused_before_their_payload_arrives) {
  const struct {
    int32_t limit;
    std::string longest, too_long;
  } cases[] = {
      {4, short_frame(fin | text, "4444"), short_frame(fin | text, "55555").substr(0, 6)},
      {200, frame_126(fin | text, std::string(200, 'a')),
       frame_126(fin | text, std::string(201, 'a')).substr(0, 8)},
      {0, short_frame(fin | text, ""), short_frame(fin | text, "1")},
      {-1, "", short_frame(fin | text, "")},
      {1048576, "", head_127(fin | text, 1048577).substr(0, 16)},
      {INT32_MAX, "", head_127(fin | text, 2147483648u)},
      {1048576, "", head_127(fin | text, uint64_t{1} << 63)},
      {1048576, "", head_127(fin | text, UINT64_MAX)},
  };
  for (const auto& t : cases) {
    reconnect();
    c().max_frame_length = t.limit;
    receive(c(), t.longest);
    EXPECT_EQ(c().content, "");
    expect_open();
    receive(c(), t.too_long);
    expect_fault("Warning! Frame exceeds max length of " + std::to_string(t.limit) + ".\n", t.too_long);
  }
}

TEST_F(websocket_frames, longer_message_than_the_limit_ends_the_connection) {
  c().max_message_length = 10;
  receive(c(), short_frame(fin | text, "0123456789"));
  EXPECT_EQ(messages(), strings{"0123456789"});
  receive(c(), short_frame(text, "012345"));
  expect_open();
  const std::string input = short_frame(fin | continuation, "6789a");
  receive(c(), input);
  EXPECT_EQ(messages(), strings{"0123456789"});
  EXPECT_EQ(c().message, "0123456789a");
  expect_fault("Warning! Message exceeds max length of 10.\n", input);
}

TEST_F(websocket_frames, are_not_read_before_the_upgrade_or_on_a_closing_connection) {
  std::string input = short_frame(fin | text, "x");
  for (bool upgraded : {true, false}) {
    auto plain = std::make_unique<recorder>();
    plain->upgraded = upgraded;
    plain->keep_alive = !upgraded;
    plain->on_data(input.data(), static_cast<int>(input.size()));
    EXPECT_EQ(plain->content, input);
    EXPECT_EQ(plain->times("message x"), 0);
  }
}

TEST_F(websocket_frames, in_the_same_input_are_read_on_when_a_handler_wants_to_close) {
  struct closing : recorder {
    void on_message() override {
      recorder::on_message();
      keep_alive = false;
    }
  };
  auto closing_connection = std::make_unique<closing>();
  closing_connection->content = short_frame(fin | text, "1") + short_frame(fin | text, "2") + "\x81";
  closing_connection->read_frames();
  EXPECT_EQ(closing_connection->events, (strings{"message 1", "message 2"}));
  EXPECT_EQ(closing_connection->content, "\x81");
}

TEST_F(websocket_frames, default_on_message_echoes_binary_as_text) {
  receive(c(), frame_126(fin | binary, std::string(126, 'b')));
  EXPECT_EQ(send_everything(c()), std::string("\x81\x7E\x00\x7E", 4) + std::string(126, 'b'));
}
