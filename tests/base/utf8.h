/* utf8: an encoder for test input. It encodes any value up to 0x1FFFFF, surrogates included. */
#pragma once

#include <cstdint>
#include <string>

inline void append_utf8(std::string& s, uint32_t code_point) {
  auto add = [&s](uint32_t byte) { s += static_cast<char>(byte); };
  auto add_continuation = [&](int shift) { add(0x80 | (code_point >> shift & 0x3F)); };
  if (code_point < 0x80) {
    add(code_point);
  } else if (code_point < 0x800) {
    add(0xC0 | code_point >> 6);
    add_continuation(0);
  } else if (code_point < 0x10000) {
    add(0xE0 | code_point >> 12);
    add_continuation(6);
    add_continuation(0);
  } else {
    add(0xF0 | code_point >> 18);
    add_continuation(12);
    add_continuation(6);
    add_continuation(0);
  }
}
