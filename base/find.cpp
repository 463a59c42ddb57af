#include "base/find.h"

#include <endian.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace base {

bool& find_case_insensitive() {
  static bool flag = true;
  return flag;
}

namespace {

char fold(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool is_match(char byte, char wanted, bool fold_case) {
  return wanted == '?' || byte == wanted || (fold_case && fold(byte) == fold(wanted));
}

// Whether the whole `pattern` matches at text[start]. If so, `end` is the position after the match. When a
// part after a "*" does not match, only this part is tried again, one byte further on. Everything before the
// "*" is settled.
bool match_at(const std::string& text, size_t start, const std::string& pattern, size_t& end) {
  const bool fold_case = find_case_insensitive();
  // The place where the part after the last "*" was tried last; npos before the first "*". The part is tried
  // again only after a "*", and not at the end of the text, where it would fail at once.
  size_t retry_text = std::string::npos;
  size_t retry_pattern = 0;
  size_t t = start;
  size_t p = 0;
  while (p < pattern.size()) {
    if (pattern[p] == '*') {
      retry_pattern = ++p;
      retry_text = t;
    } else if (t < text.size() && is_match(text[t], pattern[p], fold_case)) {
      t++;
      p++;
    } else if (retry_text < text.size()) {
      t = ++retry_text;
      p = retry_pattern;
    } else {
      return false;
    }
  }
  end = t;
  return true;
}

}  // namespace

bool is_equal_folded(const char* a, std::string_view b) {
  for (size_t i = 0; i < b.size(); i++) {
    if (fold(a[i]) != fold(b[i])) return false;
  }
  return true;
}

size_t find(const std::string& text, const std::string& pattern, size_t& end) {
  // The end of the text is a place, too: even in an empty text, an empty pattern and a "*" match.
  for (size_t start = 0; start <= text.size(); start++) {
    if (match_at(text, start, pattern, end)) return start;
  }
  return std::string::npos;
}

namespace {

// Sixteen bytes. An operator works on all of them, with one instruction on x86-64 and arm64 and with a few on
// other processors.
using block = unsigned char __attribute__((vector_size(16)));

block load(const char* from) {
  block bytes;
  memcpy(&bytes, from, sizeof(bytes));
  return bytes;
}

block all(unsigned char byte) {
  return block{} + byte;
}

// The index, 0 to 15, of the first byte of `hits` that is not 0; 16 when all are 0.
template <class Block>
size_t first_hit(const Block& hits) {
  uint64_t halves[2];
  memcpy(halves, &hits, sizeof(halves));
  if (halves[0] != 0) return static_cast<size_t>(__builtin_ctzll(le64toh(halves[0]))) / 8;
  if (halves[1] != 0) return static_cast<size_t>(__builtin_ctzll(le64toh(halves[1]))) / 8 + 8;
  return sizeof(halves);
}

constexpr size_t most_beyond = 16;

// The first place from `at` on and before `end` that `matches` accepts; `end` when there is none. `matches`
// tests the sixteen places that begin at its argument. It also reads the `beyond` bytes after each place.
template <class Matches>
const char* first_match(const char* at, const char* end, size_t beyond, Matches matches) {
  for (; end - at >= 16; at += 16) {
    const size_t hit = first_hit(matches(at));
    if (hit < 16) return at + hit;
  }
  char rest[16 + most_beyond] = {};  // the places that are left, the bytes beyond them, then zeros
  const auto places = static_cast<size_t>(end - at);
  memcpy(rest, at, places + beyond);
  return at + std::min(first_hit(matches(rest)), places);
}

}  // namespace

size_t find_line_end(std::string_view text, size_t from) {
  if (text.size() < 2 || from > text.size() - 2) return std::string::npos;
  const block cr = all('\r'), lf = all('\n');
  const char* const end = text.data() + text.size() - 1;
  const char* at = first_match(text.data() + from, end, 1,
                               [&](const char* p) { return (load(p) == cr) & (load(p + 1) == lf); });
  return at < end ? static_cast<size_t>(at - text.data()) : std::string::npos;
}

size_t find_line(std::string_view text, std::string_view name, size_t from) {
  if (name.empty()) return find_line_end(text, from);
  const size_t length = 2 + name.size();
  if (text.size() < length || from > text.size() - length) return std::string::npos;
  // A candidate is a CRLF after which two bytes of the name stand in their places: the first one, and the
  // last one (in a long name the 15th). Because two bytes must match, a text may hold many candidates for
  // some names, but not for every name. The bit in which A to Z differ from a to z is ignored here, so some
  // pairs of other bytes count as equal, too. Therefore the whole name is compared after that.
  const size_t far = std::min(name.size(), most_beyond - 1) - 1;
  const block case_bit = all(0x20), cr = all('\r'), lf = all('\n');
  const block first = all(static_cast<unsigned char>(name[0])) | case_bit;
  const block other = all(static_cast<unsigned char>(name[far])) | case_bit;
  const auto is_candidate = [&](const char* p) {
    return (load(p) == cr) & (load(p + 1) == lf) & ((load(p + 2) | case_bit) == first) &
           ((load(p + 2 + far) | case_bit) == other);
  };
  const char* const end = text.data() + text.size() - length + 1;
  for (const char* at = text.data() + from; at < end; at++) {
    at = first_match(at, end, far + 2, is_candidate);
    if (at < end && is_equal_folded(at + 2, name)) return static_cast<size_t>(at - text.data());
  }
  return std::string::npos;
}

}  // namespace base
