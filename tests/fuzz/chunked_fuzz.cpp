// Bodies in chunks: what a head says about the end of its body, and where that end is.
//
// Input: a byte of flags, four chunk sizes, the head up to the next 0xFF, and the body. Head and body may be
// written as numbers of frequent parts instead of bytes. Rules:
//
// - A head means what a model reads in it, line by line.
//
// - A body ends where a decoder of the whole text finds its end, however the body is cut.
//
// - A proxy that answers such a request takes it for complete at that end and not before.
//
// - If the body has no end, nothing that follows is taken for a request.

#include "http/body_end.h"
#include "http/chunked_body.h"
#include "proxy/reverse_proxy.h"
#include "tests/fuzz/fuzz.h"

using fuzz::expect;

namespace {

enum flags { head_of_parts = 1, body_of_parts = 2 };

const char* const head_parts[] = {"POST / HTTP/1.1\r\n",
                                  "Transfer-Encoding: chunked\r\n",
                                  "Transfer-Encoding:",
                                  "transfer-ENCODING",
                                  "chunked",
                                  "gzip",
                                  ",",
                                  " ",
                                  "\t",
                                  "\r\n",
                                  "\r",
                                  "\n",
                                  ":",
                                  "X: y\r\n",
                                  "a\r\n",
                                  "Connection: x\r\n",
                                  "CONNECT ",
                                  "GET / HTTP/1.0\r\n",
                                  "-",
                                  ";",
                                  "\"",
                                  "\x0b",
                                  "HTTP/1.1"};
const char* const body_parts[] = {"5\r\nhello\r\n",
                                  "0\r\n\r\n",
                                  "0\r\n",
                                  "\r\n",
                                  "A: b\r\n",
                                  "\r",
                                  "\n",
                                  "0",
                                  "3",
                                  "a",
                                  "7fffffffffff",
                                  "F",
                                  ";",
                                  " ",
                                  "\t",
                                  ":",
                                  "A",
                                  "-",
                                  "\x01",
                                  "\"",
                                  "xyz"};

template <size_t Count>
std::string assembled(const char* const (&parts)[Count], const std::string& numbers) {
  std::string text;
  for (char c : numbers) text += parts[static_cast<unsigned char>(c) % Count];
  return text;
}

const std::string blanks = " \t";
const std::string digits = "0123456789abcdefABCDEF";
const std::string token_bytes =
    "!#$%&'*+-.^_`|~0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";

std::vector<std::string> split(const std::string& text, const std::string& separators) {
  std::vector<std::string> parts(1);
  for (char c : text) {
    if (separators.find(c) != std::string::npos)
      parts.emplace_back();
    else
      parts.back() += c;
  }
  return parts;
}

std::string lower(std::string text) {
  for (char& c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
  }
  return text;
}

std::string stripped(std::string text) {
  while (!text.empty() && blanks.find(text[0]) != std::string::npos) text.erase(0, 1);
  while (!text.empty() && blanks.find(text.back()) != std::string::npos) text.pop_back();
  return text;
}

// What a reader that takes every CR and every LF for the end of a line sees, if the line has the name.
struct name_line {
  bool is_there;
  bool is_exact;  // nothing stands before the name, and a colon directly after it
  std::string value;
};

name_line read_line(const std::string& line) {
  const std::string name = "transfer-encoding";
  const size_t begin = line.find_first_of(token_bytes);
  if (begin == line.npos || lower(line.substr(begin, name.size())) != name) return {false, false, ""};
  const std::string rest = line.substr(begin + name.size());
  if (!rest.empty() && token_bytes.find(rest[0]) != rest.npos) return {false, false, ""};
  const bool is_exact = begin == 0 && !rest.empty() && rest[0] == ':';
  return {true, is_exact, is_exact ? rest.substr(1) : ""};
}

bool are_codings_chunked(const std::string& list) {
  const std::vector<std::string> elements = split(list, ",");
  for (size_t i = 0; i < elements.size(); i++) {
    const std::string coding = stripped(elements[i]);
    if (coding.empty() || coding.find_first_not_of(token_bytes) != coding.npos) return false;
    if ((lower(coding) == "chunked") != (i + 1 == elements.size())) return false;
  }
  return true;
}

bool has_odd_line(const std::string& head) {
  for (size_t i = 0; i < head.size(); i++) {
    if (head[i] == '\r' && (i + 1 == head.size() || head[i + 1] != '\n')) return true;
    if (head[i] == '\n' && (i == 0 || head[i - 1] != '\r')) return true;
    if (head[i] == '\n' && i + 1 < head.size() && blanks.find(head[i + 1]) != blanks.npos) return true;
  }
  return false;
}

body_end model_of_head(const std::string& head) {
  std::vector<std::string> values;
  const std::vector<std::string> lines = split(head, "\r\n");
  for (size_t i = 1; i < lines.size(); i++) {
    const name_line line = read_line(lines[i]);
    if (line.is_there && !line.is_exact) return body_end::unknown;
    if (line.is_there) values.push_back(line.value);
  }
  if (values.empty()) return body_end::by_length;
  std::string list = values[0];
  for (size_t i = 1; i < values.size(); i++) list += "," + values[i];
  const std::vector<std::string> words = split(lines[0], " ");
  const bool is_plain = words.size() == 3 && !words[0].empty() && words[0] != "CONNECT" &&
                        !words[1].empty() && words[2] == "HTTP/1.1" && !has_odd_line(head);
  return is_plain && are_codings_chunked(list) ? body_end::by_last_chunk : body_end::unknown;
}

// Reads a whole text as a body. Every part of the grammar is a function that advances `at`.
class decoder {
 public:
  enum results { open, ended, malformed };

  explicit decoder(const std::string& text) : text_(text) {}

  results result() const { return result_; }
  size_t end() const { return at_; }

  void decode() {
    for (uint64_t size = 1; size > 0 && result_ == open;) {
      if (!read_size(size)) return;
      if (size == 0) break;
      if (text_.size() - at_ < size) {
        at_ = text_.size();
        return;
      }
      at_ += size;
      if (!read_line_end()) return;
    }
    read_trailer();
  }

 private:
  const std::string& text_;
  size_t at_ = 0;
  results result_ = open;

  bool fail() {
    result_ = malformed;
    return false;
  }

  bool read_line_end() {
    for (char wanted : {'\r', '\n'}) {
      if (at_ == text_.size()) return false;
      if (text_[at_++] != wanted) return fail();
    }
    return true;
  }

  // The text up to the end of the line, without that end. A control character makes the body malformed.
  std::string line_text() {
    const size_t begin = at_;
    while (at_ < text_.size()) {
      const auto c = static_cast<unsigned char>(text_[at_]);
      if (c == '\r') break;
      if ((c < 0x20 && c != '\t') || c == 0x7F) {
        fail();
        break;
      }
      at_++;
    }
    if (at_ - begin > 8192) fail();
    return text_.substr(begin, at_ - begin);
  }

  bool read_size(uint64_t& size) {
    const std::string line = line_text();
    const size_t length = std::min(line.find_first_not_of(digits), line.size());
    if (length == 0 && (!line.empty() || at_ < text_.size())) return fail();
    const size_t zeros = std::min(line.find_first_not_of('0'), length);
    if (length - zeros > 16 || (length - zeros == 16 && line[zeros] > '7')) return fail();
    const size_t rest = line.find_first_not_of(blanks, length);
    if (rest != line.npos ? line[rest] != ';' : line.size() > length && at_ < text_.size()) return fail();
    if (result_ == malformed) return false;
    size = length == 0 ? 0 : strtoull(line.substr(0, length).c_str(), nullptr, 16);
    return read_line_end();
  }

  void read_trailer() {
    while (result_ == open && at_ < text_.size()) {
      if (text_[at_] == '\r') {
        if (read_line_end()) result_ = ended;
        return;
      }
      const std::string line = line_text();
      const size_t length = std::min(line.find_first_not_of(token_bytes), line.size());
      const bool is_name_open = length == line.size() && at_ == text_.size();
      if (length == 0 || (!is_name_open && (length == line.size() || line[length] != ':'))) fail();
      if (result_ == malformed || !read_line_end()) return;
    }
  }
};

void check_scanner(const std::vector<std::string>& pieces, const decoder& wanted) {
  chunked_body body;
  size_t used = 0;
  size_t all = 0;
  for (const std::string& piece : pieces) {
    const std::vector<char> copy(piece.begin(), piece.end());
    used += body.parse(copy.data(), copy.size());
    all += piece.size();
  }
  expect(body.has_ended() == (wanted.result() == decoder::ended), "a body ends if the decoder says so");
  expect(body.is_malformed() == (wanted.result() == decoder::malformed),
         "a body is malformed if the decoder says so");
  expect(used == (body.has_ended() ? wanted.end() : all), "a body ends where the decoder says");
}

struct counting_proxy : reverse_proxy {
  int complete = 0;
  int heads = 0;

  void on_headers() override {
    heads++;
    reverse_proxy::on_headers();
  }
  void on_request() override { complete++; }
};

// The host is not mapped, so the request is answered at once; its body comes in pieces.
void check_proxy(const std::vector<std::string>& pieces, const decoder& wanted) {
  fuzz::in_place<counting_proxy> c;
  fuzz::deliver(*c, "POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n");
  expect(c->heads == 1 && c->complete == 0, "the head is no complete request");
  size_t delivered = 0;
  for (const std::string& piece : pieces) {
    fuzz::deliver(*c, piece);
    delivered += piece.size();
    const bool is_over = wanted.result() == decoder::ended && delivered >= wanted.end();
    expect(c->complete == (is_over ? 1 : 0), "a request is complete at the end of its body");
    expect(c->heads == 1, "nothing in a body is a request");
    expect(c->pipe->to_upstream.empty(), "chunks that nobody reads are dropped");
    if (is_over) return;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::input in(data, size);
  const int flags = in.byte();
  const fuzz::cutter cutter(in);
  std::string head = in.field();
  if (flags & head_of_parts) head = assembled(head_parts, head);
  std::string body = in.rest();
  if (flags & body_of_parts) body = assembled(body_parts, body);
  expect(find_body_end(head) == model_of_head(head), "a head means what the model reads in it");
  decoder wanted(body);
  wanted.decode();
  const std::vector<std::string> pieces = cutter.cut(body);
  check_scanner(pieces, wanted);
  check_scanner(fuzz::byte_by_byte(body), wanted);
  check_proxy(pieces, wanted);
  return 0;
}
