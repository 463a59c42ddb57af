#include "base/find.h"

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

// Whether the whole of `pattern` matches at text[start]; `end` is then the position behind the match.
// After a "*" only the part behind it is tried again, one byte further on; what stood before it is settled.
bool match_at(const std::string& text, size_t start, const std::string& pattern, size_t& end) {
  const bool fold_case = find_case_insensitive();
  const size_t none = std::string::npos;
  size_t retry_text = none;  // where the part behind the last "*" was tried last
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
    } else if (retry_text != none && retry_text < text.size()) {
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

bool is_equal_folded(const char* a, const char* b, size_t len) {
  for (size_t i = 0; i < len; i++) {
    if (fold(a[i]) != fold(b[i])) return false;
  }
  return true;
}

size_t find(const std::string& text, const std::string& pattern, size_t& end) {
  // The end counts as a place, too, for an empty text: an empty pattern and a star match in it.
  for (size_t start = 0; start <= text.size(); start++) {
    if (match_at(text, start, pattern, end)) return start;
  }
  return std::string::npos;
}

}  // namespace base
