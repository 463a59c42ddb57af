#include "base/text.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace base {

std::string num(double x) {
  char text[512];  // the longest double has 309 digits and a sign
  double integral = 0;
  snprintf(text, sizeof(text), std::modf(x, &integral) == 0.0 ? "%.0f" : "%g", x);
  return text;
}

int32_t parse_int(const char* text) {
  return static_cast<int32_t>(strtol(text, nullptr, 10));
}

// The kept memory saves all allocations of a request on a kept-alive connection. A request with a browser's
// head then takes 500 of 11,400 instructions less (callgrind, 16 clients). The total processor time shows no
// difference.
void empty_for_reuse(std::string& s) {
  constexpr size_t most_kept = 65536;
  s.clear();
  if (s.capacity() > most_kept) s.shrink_to_fit();
}

void append_dotted_quad(std::string& text, uint32_t ip) {
  unsigned char bytes[4];
  memcpy(bytes, &ip, sizeof(bytes));
  char quad[16];
  char* end = quad;
  for (unsigned char byte : bytes) {
    end = std::to_chars(end, end + 3, byte).ptr;
    *end++ = '.';
  }
  text.append(quad, static_cast<size_t>(end - 1 - quad));
}

std::string base64(const std::string& bytes) {
  static const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  auto byte = [&bytes](int i) { return static_cast<unsigned char>(bytes[static_cast<size_t>(i)]); };
  int len = static_cast<int>(bytes.size());
  int i = 0;
  for (; len - i >= 3; i += 3) {
    out += alphabet[byte(i) >> 2];
    out += alphabet[(byte(i) & 3) << 4 | byte(i + 1) >> 4];
    out += alphabet[(byte(i + 1) & 15) << 2 | byte(i + 2) >> 6];
    out += alphabet[byte(i + 2) & 63];
  }
  if (len - i == 2) {
    out += alphabet[byte(i) >> 2];
    out += alphabet[(byte(i) & 3) << 4 | byte(i + 1) >> 4];
    out += alphabet[(byte(i + 1) & 15) << 2];
    out += "=";
  } else if (len - i == 1) {
    out += alphabet[byte(i) >> 2];
    out += alphabet[(byte(i) & 3) << 4];
    out += "==";
  }
  return out;
}

namespace {

uint32_t rotate_left(uint32_t x, int bits) {
  return x << bits | x >> (32 - bits);
}

// FIPS 180-4, section 4.1.1.
uint32_t choose(uint32_t x, uint32_t y, uint32_t z) {
  return (x & y) ^ (~x & z);
}
uint32_t parity(uint32_t x, uint32_t y, uint32_t z) {
  return x ^ y ^ z;
}
uint32_t majority(uint32_t x, uint32_t y, uint32_t z) {
  return (x & y) ^ (x & z) ^ (y & z);
}

uint32_t big_endian_word(const char* bytes) {
  uint32_t word = 0;
  for (int i = 0; i < 4; i++) word = word << 8 | static_cast<unsigned char>(bytes[i]);
  return word;
}

void append_big_endian(std::string& s, uint32_t word) {
  for (int shift = 24; shift >= 0; shift -= 8) s += static_cast<char>(word >> shift & 0xFF);
}

using sha1_state = std::array<uint32_t, 5>;

// FIPS 180-4, section 6.1.2: one block of 64 bytes.
void hash_block(sha1_state& h, const char* block) {
  uint32_t w[80];
  for (size_t t = 0; t < 16; t++) w[t] = big_endian_word(block + 4 * t);
  for (int t = 16; t < 80; t++) w[t] = rotate_left(w[t - 3] ^ w[t - 8] ^ w[t - 14] ^ w[t - 16], 1);

  uint32_t a = h[0], b = h[1], c = h[2], d = h[3], e = h[4];
  for (int t = 0; t < 80; t++) {
    uint32_t f, k;
    if (t < 20) {
      f = choose(b, c, d);
      k = 0x5A827999;
    } else if (t < 40) {
      f = parity(b, c, d);
      k = 0x6ED9EBA1;
    } else if (t < 60) {
      f = majority(b, c, d);
      k = 0x8F1BBCDC;
    } else {
      f = parity(b, c, d);
      k = 0xCA62C1D6;
    }
    uint32_t next = rotate_left(a, 5) + f + e + k + w[t];
    e = d;
    d = c;
    c = rotate_left(b, 30);
    b = a;
    a = next;
  }
  h = {h[0] + a, h[1] + b, h[2] + c, h[3] + d, h[4] + e};
}

}  // namespace

std::string sha1(const std::string& bytes) {
  std::string padded = bytes;
  padded += '\x80';
  while (padded.size() % 64 != 56) padded += '\0';
  append_big_endian(padded, 0);  // the upper half of the length is not used
  append_big_endian(padded, static_cast<uint32_t>(bytes.size() * 8));

  sha1_state h = {0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476, 0xC3D2E1F0};
  for (size_t i = 0; i < padded.size(); i += 64) hash_block(h, padded.data() + i);

  std::string digest;
  for (uint32_t word : h) append_big_endian(digest, word);
  return digest;
}

uint32_t utf8_decode(const std::string& s, size_t& pos) {
  // The largest code point for each number of continuation bytes.
  static const uint32_t masks[] = {0x7F, 0x7FF, 0xFFFF, 0x1FFFFF};

  uint32_t lead = static_cast<unsigned char>(s[pos++]);
  if (lead < 0x80) return lead;
  if (lead < 0xC0 || lead > 0xF7) return invalid_code_point;  // a stray continuation, or more than 4 bytes
  size_t n = lead < 0xE0 ? 1 : lead < 0xF0 ? 2 : 3;

  uint32_t code = lead;
  for (size_t i = 0; i < n; i++) {
    uint32_t next = pos + i < s.size() ? static_cast<unsigned char>(s[pos + i]) : 0;
    if ((next & 0xC0) != 0x80) return invalid_code_point;
    code = code << 6 | (next & 0x3F);
  }
  code &= masks[n];
  if (code <= masks[n - 1]) return invalid_code_point;  // overlong
  if (n == 2 && code >= 0xD800 && code <= 0xDFFF) return invalid_code_point;
  pos += n;
  return code;
}

namespace {

const char hex_digits[] = "0123456789abcdef";

void append_u_escape(std::string& out, uint32_t unit) {
  out += "\\u";
  for (int shift = 12; shift >= 0; shift -= 4) out += hex_digits[unit >> shift & 15];
}

void append_code_point(std::string& out, uint32_t code) {
  if (code == invalid_code_point) {
    append_u_escape(out, 0xFFFF);  // U+FFFF itself gives the same
  } else if (code < 0x10000) {
    append_u_escape(out, code);
  } else {
    uint32_t v = code - 0x10000;
    append_u_escape(out, 0xD800 + (v >> 10));
    append_u_escape(out, 0xDC00 + (v & 0x3FF));
  }
}

// The character after the backslash for bytes that have a short escape; a null character for the others.
char short_escape(char c) {
  switch (c) {
    case '"':
    case '\\':
      return c;
    case '\b':
      return 'b';
    case '\f':
      return 'f';
    case '\n':
      return 'n';
    case '\r':
      return 'r';
    case '\t':
      return 't';
    case '\0':
      return '0';
    default:
      return 0;
  }
}

}  // namespace

std::string escape(const std::string& s, bool json) {
  std::string out;
  for (size_t i = 0; i < s.size();) {
    char c = s[i];
    if (char e = short_escape(c)) {
      out += '\\';
      out += e;
      i++;
    } else if (c >= 0x20 && c <= 0x7E) {
      out += c;
      i++;
    } else if (json) {
      append_code_point(out, utf8_decode(s, i));
    } else {
      auto byte = static_cast<unsigned char>(c);
      out += "\\x";
      out += hex_digits[byte >> 4];
      out += hex_digits[byte & 15];
      i++;
    }
  }
  return out;
}

}  // namespace base
