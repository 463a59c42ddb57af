// WebSocket (RFC 6455), server side: the opening handshake, frames in and out, channels, and the destructor,
// which leaves the channels.

#include <algorithm>

#include "base/text.h"
#include "http/http_connection.h"

namespace {

const char handshake_guid[] = "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";

// The last two values of a frame's 7-bit length: they tell where the real length is (RFC 6455, section 5.2).
constexpr int length_in_2_bytes = 126;
constexpr int length_in_8_bytes = 127;

// A client's frame as its first bytes describe it. Without a mask, no field after `is_masked` is set.
struct frame_header {
  int opcode;
  bool is_final;
  bool is_masked;
  size_t length = 0;   // of the header: where the payload starts
  size_t mask_at = 0;  // offset of the mask key
  double payload = 0;  // bytes; a double, so that 2^64 - 1 is too long and not negative
};

// The number in the `count` bytes at text[at], least significant byte first.
double little_endian(const std::string& text, size_t at, size_t count) {
  uint64_t value = 0;
  for (size_t i = count; i-- > 0;) value = value << 8 | static_cast<unsigned char>(text[at + i]);
  return static_cast<double>(value);
}

enum parse_results { complete, incomplete };

// Parses the header of the frame at text[off], of which at least 6 bytes are there. Frames of up to 125 bytes
// have no extended length and are read as in RFC 6455. Other frames are read differently: an extended length
// is read least significant byte first, and a length of 8 bytes is read at offset 8, with the mask after it.
// Browsers do not send this, but clients written for this server rely on it.
parse_results parse_frame_header(const std::string& text, size_t off, frame_header& frame) {
  auto byte = [&](size_t i) { return static_cast<unsigned char>(text[off + i]); };
  frame.opcode = byte(0) & 15;
  frame.is_final = (byte(0) & 0x80) != 0;
  frame.is_masked = (byte(1) & 0x80) != 0;
  if (!frame.is_masked) return complete;

  const int code = byte(1) & 0x7F;
  if (code <= 125) {
    frame.length = 6;
    frame.mask_at = 2;
    frame.payload = code;
  } else if (code == length_in_2_bytes) {
    // The length is in the first 6 bytes, which are there. This line also waits for the mask, but only if the
    // frame is the first in the input.
    if (text.size() <= 7) return incomplete;
    frame.length = 8;
    frame.mask_at = 4;
    frame.payload = little_endian(text, off + 2, 2);
  } else {
    if (text.size() < off + 16) return incomplete;
    frame.length = 14;
    frame.mask_at = 16;
    frame.payload = little_endian(text, off + 8, 8);
  }
  return complete;
}

}  // namespace

// Answers a request for an upgrade (RFC 6455, section 4.2). A request that is refused goes on as an HTTP
// request: its handler then finds `written` set.
void http_connection::start_websocket() {
  std::string key = get_header("Sec-WebSocket-Key", head);
  int32_t wanted = base::parse_int(get_header("Sec-WebSocket-Version", head).c_str());
  if (wanted != 13 || key.empty()) {
    write("HTTP/1.1 400 Bad Request\r\nSec-WebSocket-Version: 13\r\n", "");
    return;
  }
  write(
      "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
      "Sec-WebSocket-Accept: " +
          base::base64(base::sha1(key + handshake_guid)) + "\r\n",
      "");
  upgraded = true;
  timeout = -1;
  max_request_length = 0;
  on_upgrade();
}

void http_connection::on_upgrade() {
  hang_up();
}

void http_connection::on_message() {
  send_message(message, text_frame);
}

void http_connection::read_frames() {
  size_t off = 0;
  while (content.size() >= off + 6) {
    frame_header frame;
    if (parse_frame_header(content, off, frame) == incomplete) break;
    if (!frame.is_masked) {
      printf("Warning! Incoming frame has no mask.\n");
      hang_up();
      return;
    }
    if (frame.payload > max_frame_length) {
      printf("Warning! Frame exceeds max length of %d.\n", max_frame_length);
      hang_up();
      return;
    }
    // With a length of 8 bytes the mask begins inside the payload, and may end after it. The bytes of the
    // mask that are used must be there, too.
    auto length = static_cast<size_t>(frame.payload);
    size_t mask_used = length < 4 ? length : 4;
    size_t end = std::max(off + frame.length + length, off + frame.mask_at + mask_used);
    if (content.size() < end) break;
    std::string payload = content.substr(off + frame.length, length);
    for (size_t i = 0; i < length; i++)
      payload[i] = static_cast<char>(payload[i] ^ content[off + frame.mask_at + i % 4]);
    if (!on_frame(frame.opcode, frame.is_final, payload)) return;
    off += frame.length + length;
  }
  content.erase(0, off);
}

// Acts on one frame. Returns false when the connection ends; the input then stays as it is.
bool http_connection::on_frame(int opcode, bool is_final, const std::string& payload) {
  switch (opcode) {
    case ping_frame:
      send_message(payload, pong_frame);
      return true;
    case close_frame:
      hang_up();
      return false;
    case continuation_frame:
    case text_frame:
    case binary_frame:
      break;
    default:
      printf("Warning! Unhandled opcode: %d\n", opcode);
      return true;
  }
  message += payload;
  if (static_cast<int64_t>(message.size()) > max_message_length) {
    printf("Warning! Message exceeds max length of %d.\n", max_message_length);
    hang_up();
    return false;
  }
  if (is_final) {
    on_message();
    message.clear();
  }
  return true;
}

void http_connection::send_message(const std::string& payload, int opcode) {
  const size_t n = payload.size();
  std::string frame(1, static_cast<char>(opcode | 0x80));
  auto append_big_endian = [&](int bytes) {
    for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8) frame += static_cast<char>(n >> shift & 0xFF);
  };
  if (n <= 125) {
    append_big_endian(1);
  } else if (n <= 65535) {
    frame += static_cast<char>(length_in_2_bytes);
    append_big_endian(2);
  } else if (n <= 1048575) {
    frame += static_cast<char>(length_in_8_bytes);
    append_big_endian(8);
  } else {
    printf("send_message() error! Message too long: %zu\n", n);
  }
  append_part(frame + payload);
}

base::hashmap<base::arraylist<http_connection*>*>& http_connection::channels() {
  static auto& map = *new base::hashmap<base::arraylist<http_connection*>*>;
  return map;
}

namespace {

bool contains(const base::arraylist<http_connection*>* members, const http_connection* conn) {
  return members &&
         std::find(members->data, members->data + members->count, conn) != members->data + members->count;
}

}  // namespace

void http_connection::subscribe(const std::string& channel) {
  base::arraylist<http_connection*>* members = channels().get(channel);
  if (!upgraded || contains(members, this)) return;
  const bool is_first = !members;
  if (is_first) members = new base::arraylist<http_connection*>;  // deleted by leave() of the last member
  try {
    if (is_first) channels().set(channel, members);
    subscriptions.set(channel, 1);
    members->add(this);
  } catch (...) {  // the memory for one of these was refused
    subscriptions.remove(channel);
    if (is_first) {
      channels().remove(channel);
      delete members;
    }
    throw;
  }
}

void http_connection::unsubscribe(const std::string& channel) {
  if (!contains(channels().get(channel), this)) return;
  leave(channel);
  subscriptions.remove(channel);
}

void http_connection::publish(const std::string& channel, const std::string& payload, int opcode) {
  const base::arraylist<http_connection*>* members = channels().get(channel);
  if (!members) return;
  for (uint32_t i = 0; i < members->count; i++) {
    if (members->data[i]->keep_alive) members->data[i]->send_message(payload, opcode);
  }
}

// Removes this connection from the list of the channel. An empty list is removed from channels() and deleted.
void http_connection::leave(const std::string& channel) {
  base::arraylist<http_connection*>* list = channels().get(channel);
  if (!list) {
    printf("Error! Channel not found: %s\n", channel.c_str());
    return;
  }
  if (!list->remove(this)) {
    printf("Error! Subscription for %d to %s not found!\n", sock, channel.c_str());
    return;
  }
  if (list->count > 0) return;
  channels().remove(channel);
  delete list;
}

http_connection::~http_connection() {
  while (response_parts.count > 0) pop_part();
  if (!upgraded) return;
  for (uint32_t i = 0; i < subscriptions.count; i++) leave(*subscriptions.keys[i]);
}
