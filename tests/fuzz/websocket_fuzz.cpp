// WebSocket frames through on_recv, after an upgrade.
//
// Input: a byte of flags, four chunk sizes, and the bytes after the handshake. Rules: messages and answers
// are the same however the bytes are cut. The answers are frames, and they echo the messages.

#include "tests/fuzz/fuzz.h"
#include "tests/fuzz/noted_connection.h"

using fuzz::expect;

namespace {

enum flags { short_frames = 1, short_messages = 2 };  // limits that a small input can exceed

constexpr int short_length = 24;

const char handshake[] =
    "GET /chat HTTP/1.1\r\nHost: h\r\nUpgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Key: k\r\n"
    "Sec-WebSocket-Version: 13\r\n\r\n";

std::string sent_by(http_connection& c) {
  static char* const buffer = static_cast<char*>(malloc(connection::out_capacity));  // kept to the end
  std::string bytes;
  while (c.response_parts.count > 0) {
    int len = 0;
    c.on_send(buffer, connection::out_capacity, &len);
    expect(len >= 0 && len <= connection::out_capacity, "a part fits into the buffer");
    bytes.append(buffer, static_cast<size_t>(len));
  }
  return bytes;
}

struct outcome {
  std::string messages;
  std::string answers;
  std::string rest;  // the part of the input that is not read yet
  bool is_open = true;

  // Only the beginning of a frame with a 2-byte length is left. It is not read before it has eight bytes.
  bool awaits_a_mask() const { return (rest.size() == 6 || rest.size() == 7) && (rest[1] & 0x7F) == 126; }
};

template <int Number>
outcome play(int flags, const std::vector<std::string>& chunks) {
  fuzz::in_place<noted_connection, Number> c;
  c->stays_upgraded = true;
  fuzz::deliver(*c, handshake);
  expect(c->upgraded && c->timeout == -1, "the handshake is accepted");
  sent_by(*c);
  c->events.clear();
  if (flags & short_frames) c->max_frame_length = short_length;
  if (flags & short_messages) c->max_message_length = short_length;
  outcome result;
  for (const std::string& chunk : chunks) {
    fuzz::deliver(*c, chunk);
    result.answers += sent_by(*c);
    expect(static_cast<int>(c->message.size()) <= c->max_message_length || !c->keep_alive,
           "a message that is too long ends the connection");
  }
  for (const std::string& event : c->events) {
    if (event.compare(0, 8, "message ") == 0)
      result.messages += event + "\n";
    else
      expect(event.compare(0, 5, "data ") == 0, "there are no requests after an upgrade");
  }
  result.rest = c->content;
  result.is_open = c->keep_alive;
  expect(c->timeout == (c->keep_alive ? -1 : 0),
         "a fault has the connection time out, and nothing else does");
  return result;
}

// The payloads of the text frames in `bytes`, which are unmasked and not fragmented.
std::string echoed(const std::string& bytes) {
  std::string messages;
  for (size_t at = 0; at < bytes.size();) {
    auto byte = [&](size_t i) -> size_t {
      expect(at + i < bytes.size(), "no frame is cut short");
      return static_cast<unsigned char>(bytes[at + i]);
    };
    const size_t first = byte(0);
    expect(first == 0x81 || first == 0x8A, "answers are whole messages and pongs");
    size_t length = byte(1);
    size_t header = 2;
    expect(length != 127, "a small input has no long answers");
    if (length == 126) {
      length = byte(2) << 8 | byte(3);
      header = 4;
      expect(length > 125, "a length takes the shortest form");
    }
    expect(bytes.size() - at >= header + length, "no payload is cut short");
    if (first == 0x81) messages += "message " + bytes.substr(at + header, length) + "\n";
    at += header + length;
  }
  return messages;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::input in(data, size);
  const int flags = in.byte();
  const fuzz::cutter cutter(in);
  const std::string bytes = in.rest();

  const outcome whole = play<1>(flags, {bytes});
  fuzz::expect_equal(echoed(whole.answers), whole.messages, "every message is echoed");
  for (const auto& chunks : {cutter.cut(bytes), fuzz::byte_by_byte(bytes)}) {
    const outcome cut = play<2>(flags, chunks);
    fuzz::expect_equal(cut.messages, whole.messages, "messages are the same however the bytes are cut");
    fuzz::expect_equal(cut.answers, whole.answers, "answers are the same however the bytes are cut");
    // If another frame comes before it, a 2-byte length is refused two bytes earlier.
    expect(cut.is_open == whole.is_open || (cut.is_open && cut.awaits_a_mask()),
           "the end is the same however the bytes are cut");
  }
  return 0;
}
