// Header look-up, and the wildcard search that it uses.
//
// Input: a byte of flags, the name up to 0xFF, and the text. Rule: the result is that of a plain search. It
// matches the pieces between the "*" of a pattern one after the other, each as early as possible.

#include <stdexcept>

#include "base/find.h"
#include "http/http_connection.h"
#include "tests/fuzz/fuzz.h"

namespace {

char lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
}

bool is_piece_at(const std::string& text, size_t at, const std::string& piece, bool folded) {
  if (text.size() - at < piece.size()) return false;
  for (size_t i = 0; i < piece.size(); i++) {
    const bool same = folded ? lower(text[at + i]) == lower(piece[i]) : text[at + i] == piece[i];
    if (piece[i] != '?' && !same) return false;
  }
  return true;
}

// Where the pattern that begins at text[start] ends, or npos.
size_t end_of_match(const std::string& text, size_t start, const std::vector<std::string>& pieces,
                    bool folded) {
  size_t at = start;
  for (size_t i = 0; i < pieces.size(); i++) {
    while (i > 0 && at < text.size() && !is_piece_at(text, at, pieces[i], folded)) at++;
    if (!is_piece_at(text, at, pieces[i], folded)) return std::string::npos;
    at += pieces[i].size();
  }
  return at;
}

size_t plain_find(const std::string& text, const std::string& pattern, bool folded, size_t& end) {
  std::vector<std::string> pieces(1);
  for (char c : pattern) {
    if (c == '*')
      pieces.emplace_back();
    else
      pieces.back() += c;
  }
  for (size_t start = 0; start <= text.size(); start++) {
    size_t found = end_of_match(text, start, pieces, folded);
    if (found == std::string::npos) continue;
    end = found;
    return start;
  }
  return std::string::npos;
}

const char thrown[] = "(out of range)";

std::string plain_header(const std::string& name, const std::string& text, bool folded) {
  size_t end = 0;
  if (plain_find(text, "\r\n" + name, folded, end) == std::string::npos) return "";
  if (end + 2 > text.size()) return thrown;
  const std::string value = text.substr(end + 2);
  return value.substr(0, value.find("\r\n"));
}

std::string header(const std::string& name, const std::string& text) {
  try {
    return http_connection::get_header(name, text);
  } catch (const std::out_of_range&) {
    return thrown;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::input in(data, size);
  const bool folded = (in.byte() & 1) == 0;
  const std::string name = in.field();
  const std::string text = in.rest();
  base::find_case_insensitive() = folded;

  size_t end = 12345;
  size_t plain_end = 12345;
  const size_t start = base::find(text, name, end);
  const size_t plain_start = plain_find(text, name, folded, plain_end);
  fuzz::expect(start == plain_start, "find() finds the first match");
  fuzz::expect(end == plain_end, "find() says where the match ends, and leaves `end` alone without one");
  fuzz::expect_equal(header(name, text), plain_header(name, text, folded),
                     "the value of the first line that begins with the name");
  return 0;
}
