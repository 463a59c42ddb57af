// The codecs of base/text.h.
//
// Input: eight bytes of a number, then a string. Rule for each codec: a decoder that shares nothing with the
// encoder gives the input back.

#include "base/text.h"

#include <cmath>
#include <cstring>

#include "tests/fuzz/fuzz.h"

using fuzz::expect;
using fuzz::expect_equal;

namespace {

void check_num(double x) {
  const std::string text = base::num(x);
  double whole = 0;
  if (std::isnan(x)) {
    expect(text == "nan" || text == "-nan", "not a number is written as nan");
    return;
  }
  const double back = strtod(text.c_str(), nullptr);
  if (std::modf(x, &whole) == 0.0) {
    expect(back == x && std::signbit(back) == std::signbit(x), "a whole number comes back");
    expect(text.find_first_of(".e") == text.npos, "a whole number has only digits");
  } else {
    expect(std::fabs(back - x) <= std::fabs(x) * 1e-5, "six digits are right");
  }
}

int sextet(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  return c == '+' ? 62 : c == '/' ? 63 : -1;
}

void check_base64(const std::string& bytes) {
  const std::string text = base::base64(bytes);
  expect(text.size() == (bytes.size() + 2) / 3 * 4, "Base64 takes four characters for three bytes");
  std::string back;
  for (size_t i = 0; i < text.size(); i += 4) {
    uint32_t bits = 0;
    int padding = 0;
    for (size_t j = 0; j < 4; j++) {
      const char c = text[i + j];
      if (c == '=') padding++;
      expect(c == '=' ? i + 4 == text.size() && j >= 2 : padding == 0 && sextet(c) >= 0, "it is Base64");
      bits = bits << 6 | static_cast<uint32_t>(c == '=' ? 0 : sextet(c));
    }
    for (int shift = 16; shift >= 8 * padding; shift -= 8) back += static_cast<char>(bits >> shift & 0xFF);
    expect(padding == 0 || (bits & ((1u << 8 * padding) - 1)) == 0, "unused bits are zero");
  }
  expect_equal(back, bytes, "Base64 comes back");
}

void append_utf8(std::string& out, uint32_t code) {
  auto tail = [&](int shift) { out += static_cast<char>(0x80 | (code >> shift & 0x3F)); };
  if (code < 0x80) {
    out += static_cast<char>(code);
  } else if (code < 0x800) {
    out += static_cast<char>(0xC0 | code >> 6);
    tail(0);
  } else if (code < 0x10000) {
    out += static_cast<char>(0xE0 | code >> 12);
    tail(6);
    tail(0);
  } else {
    out += static_cast<char>(0xF0 | code >> 18);
    tail(12);
    tail(6);
    tail(0);
  }
}

void check_utf8(const std::string& bytes) {
  for (size_t at = 0; at < bytes.size();) {
    const size_t start = at;
    const uint32_t code = base::utf8_decode(bytes, at);
    expect(at > start && at <= bytes.size() && at - start <= 4, "decoding goes on, and not beyond the end");
    if (code == base::invalid_code_point) {
      expect(at == start + 1 && (bytes[start] & 0x80), "an invalid byte is consumed alone");
      continue;
    }
    expect(code < 0xD800 || code > 0xDFFF, "no surrogate is let through");
    std::string again;
    append_utf8(again, code);
    expect_equal(again, bytes.substr(start, at - start), "a code point is encoded as its input was");
  }
}

uint32_t hex(const std::string& text, size_t at, size_t digits) {
  expect(at + digits <= text.size(), "an escape is not cut short");
  uint32_t value = 0;
  for (size_t i = at; i < at + digits; i++) {
    const char c = text[i];
    expect((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'), "hexadecimal digits are in lower case");
    value = value << 4 | static_cast<uint32_t>(c <= '9' ? c - '0' : c - 'a' + 10);
  }
  return value;
}

// Takes an escaped text apart: bytes, or UTF-16 units for \u.
std::vector<uint32_t> unescape(const std::string& text, bool json) {
  std::vector<uint32_t> units;
  for (size_t i = 0; i < text.size(); i++) {
    expect(text[i] >= 0x20 && text[i] <= 0x7E && text[i] != '"', "an escaped text is printable");
    if (text[i] != '\\') {
      units.push_back(static_cast<unsigned char>(text[i]));
      continue;
    }
    expect(++i < text.size(), "no backslash is left over");
    static const char names[] = "\"\\bfnrt0";
    static const char values[] = "\"\\\b\f\n\r\t\0";
    if (text[i] == (json ? 'u' : 'x')) {
      units.push_back(hex(text, i + 1, json ? 4 : 2));
      i += json ? 4 : 2;
      continue;
    }
    const char* name = strchr(names, text[i]);
    expect(name != nullptr && *name, "an escape is a known one");
    units.push_back(static_cast<unsigned char>(values[name - names]));
  }
  return units;
}

void check_escape(const std::string& bytes) {
  std::string plain;
  for (uint32_t unit : unescape(base::escape(bytes, false), false)) plain += static_cast<char>(unit);
  expect_equal(plain, bytes, "an escaped string comes back");

  std::vector<uint32_t> expected;
  for (size_t at = 0; at < bytes.size();) {
    const uint32_t code = base::utf8_decode(bytes, at);
    if (code == base::invalid_code_point) {
      expected.push_back(0xFFFF);
    } else if (code < 0x10000) {
      expected.push_back(code);
    } else {
      expected.push_back(0xD800 + ((code - 0x10000) >> 10));
      expected.push_back(0xDC00 + ((code - 0x10000) & 0x3FF));
    }
  }
  expect(unescape(base::escape(bytes, true), true) == expected, "an escaped string has its code points");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::input in(data, size);
  char number[sizeof(double)];
  for (char& byte : number) byte = static_cast<char>(in.byte());
  double x = 0;
  memcpy(&x, number, sizeof(x));
  const std::string bytes = in.rest();
  check_num(x);
  check_num(std::trunc(x));
  check_base64(bytes);
  check_utf8(bytes);
  check_escape(bytes);
  expect(base::sha1(bytes).size() == 20, "a digest has 20 bytes");
  return 0;
}
