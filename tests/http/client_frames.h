/* client_frames: WebSocket frames as a client sends them, in the layouts that the server reads.
 *
 * With a payload of up to 125 bytes these are the frames of RFC 6455, section 5.2. Longer lengths are sent
 * least significant byte first. An 8-byte length stands at offset 8 and the mask after it, but the payload
 * begins at offset 14. */
#pragma once

#include <cstdint>
#include <string>

constexpr int continuation = 0, text = 1, binary = 2, close_opcode = 8, ping = 9, pong = 10;
constexpr int fin = 0x80;  // added to an opcode

inline std::string byte(uint64_t value) {
  return std::string(1, static_cast<char>(value & 0xFF));
}

inline std::string little_endian(uint64_t value, int count) {
  std::string bytes;
  for (int i = 0; i < count; i++) bytes += byte(value >> (8 * i));
  return bytes;
}

inline std::string masked(std::string payload, const std::string& mask) {
  for (size_t i = 0; i < payload.size(); i++) payload[i] = static_cast<char>(payload[i] ^ mask[i % 4]);
  return payload;
}

/* A frame of up to 125 bytes. */
inline std::string short_frame(int first_byte, const std::string& payload,
                               const std::string& mask = "\x37\xFA\x21\x3D") {
  return byte(static_cast<uint64_t>(first_byte)) + byte(0x80 | payload.size()) + mask + masked(payload, mask);
}

/* A frame with a 2-byte length, of up to 65535 bytes. */
inline std::string frame_126(int first_byte, const std::string& payload) {
  const std::string mask = "\x01\xFF\x80\x7E";
  return byte(static_cast<uint64_t>(first_byte)) + byte(0xFE) + little_endian(payload.size(), 2) + mask +
         masked(payload, mask);
}

/* The first 20 bytes of a frame with an 8-byte length; the payload overlaps its last 6. */
inline std::string head_127(int first_byte, uint64_t length, const std::string& mask = "\x01\x02\x04\x08") {
  return byte(static_cast<uint64_t>(first_byte)) + byte(0xFF) + "unused" + little_endian(length, 8) + mask;
}
