#include "http/chunked_body.h"

#include <algorithm>

#include "http/token.h"

namespace {

constexpr int32_t most_line_bytes = 8192;

constexpr uint64_t first_size_too_large_for_a_digit = uint64_t{1} << 59;  // one more digit would make it 2^63

// The value of a hexadecimal digit; -1 for any other byte.
int hex_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool is_blank(char c) {
  return c == ' ' || c == '\t';
}

// Bytes above ASCII are text, too.
bool is_text(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return c == '\t' || (byte >= 0x20 && byte != 0x7F);
}

}  // namespace

size_t chunked_body::parse(const char* data, size_t len) {
  size_t at = 0;
  while (at < len && !has_ended() && !is_malformed()) {
    if (place_ == places::chunk) {
      const uint64_t taken = std::min<uint64_t>(left_, len - at);
      left_ -= taken;
      at += taken;
      if (left_ == 0) place_ = places::chunk_cr;
    } else {
      place_ = next(data[at++]);
    }
  }
  return is_malformed() ? len : at;
}

// Returns the place after the byte `c`. At the end of a line and after a chunk, only one byte is right.
// next_in_line() handles the other places.
chunked_body::places chunked_body::next(char c) {
  switch (place_) {
    case places::size_lf:
      return after_size_line(c);
    case places::chunk_cr:
      return c == '\r' ? places::chunk_lf : places::malformed;
    case places::chunk_lf:
      return c == '\n' ? places::size_begin : places::malformed;
    case places::trailer_lf:
      return c == '\n' ? places::trailer_begin : places::malformed;
    case places::last_lf:
      return c == '\n' ? places::ended : places::malformed;
    default:
      return next_in_line(c);
  }
}

// The same for the places inside a line. Every byte counts for the length of the line, except the CR that
// ends it.
chunked_body::places chunked_body::next_in_line(char c) {
  if (place_ == places::size_begin || place_ == places::trailer_begin) line_length_ = 0;
  if (c != '\r' && ++line_length_ > most_line_bytes) return places::malformed;
  return place_ <= places::extension ? next_of_size(c) : next_of_trailer(c);
}

chunked_body::places chunked_body::next_of_size(char c) {
  switch (place_) {
    case places::size_begin:
      return add_digit(c);
    case places::size:
      if (c == '\r') return places::size_lf;
      if (c == ';') return places::extension;
      return is_blank(c) ? places::blanks : add_digit(c);
    case places::blanks:
      if (c == ';') return places::extension;
      return is_blank(c) ? places::blanks : places::malformed;
    default:  // in an extension
      if (c == '\r') return places::size_lf;
      return is_text(c) ? places::extension : places::malformed;
  }
}

chunked_body::places chunked_body::add_digit(char c) {
  const int digit = hex_value(c);
  if (digit < 0 || left_ >= first_size_too_large_for_a_digit) return places::malformed;
  left_ = left_ * 16 + static_cast<uint64_t>(digit);
  return places::size;
}

chunked_body::places chunked_body::after_size_line(char c) const {
  if (c != '\n') return places::malformed;
  return left_ > 0 ? places::chunk : places::trailer_begin;
}

chunked_body::places chunked_body::next_of_trailer(char c) const {
  switch (place_) {
    case places::trailer_begin:
      if (c == '\r') return places::last_lf;
      return is_token_byte(c) ? places::trailer_name : places::malformed;
    case places::trailer_name:
      if (c == ':') return places::trailer_value;
      return is_token_byte(c) ? places::trailer_name : places::malformed;
    default:  // in the value
      if (c == '\r') return places::trailer_lf;
      return is_text(c) ? places::trailer_value : places::malformed;
  }
}
