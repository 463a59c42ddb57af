/* fuzz: what the fuzzers share. Each is one file with one LLVMFuzzerTestOneInput(), linked with libFuzzer and
 * built with the address and undefined-behaviour sanitizers.
 *
 * A fuzzer reads its input from the front: settings first, then the bytes that the code under test gets. A
 * broken rule ends the process by fail(). libFuzzer takes this for a crash and saves the input. */
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>
#include <utility>
#include <vector>

namespace fuzz {

/* Says which rule is broken, and ends the process. */
[[noreturn]] inline void fail(const char* rule, const std::string& details = "") {
  fprintf(stderr, "\nBroken rule: %s\n%s\n", rule, details.c_str());
  abort();
}

inline void expect(bool holds, const char* rule) {
  if (!holds) fail(rule);
}

/* The bytes as in a C string literal, for messages. */
inline std::string shown(const std::string& bytes) {
  std::string text = "\"";
  for (char c : bytes) {
    if (c >= 0x20 && c < 0x7F && c != '"' && c != '\\') {
      text += c;
    } else {
      char code[8];
      snprintf(code, sizeof(code), "\\x%02x", static_cast<unsigned>(static_cast<unsigned char>(c)));
      text += code;
    }
  }
  return text + "\"";
}

inline void expect_equal(const std::string& is, const std::string& should, const char* rule) {
  if (is != should) fail(rule, "is:        " + shown(is) + "\nshould be: " + shown(should));
}

/* Reads an input from the front. After its end there are only zeros. */
class input {
 public:
  input(const uint8_t* data, size_t size) : data_(data), size_(size) {}

  bool is_at_end() const { return at_ == size_; }

  uint8_t byte() { return at_ < size_ ? data_[at_++] : 0; }

  /* The bytes up to the next 0xFF, or to the end. The 0xFF itself is skipped. */
  std::string field() {
    size_t start = at_;
    while (at_ < size_ && data_[at_] != 0xFF) at_++;
    std::string text = bytes(start, at_);
    if (at_ < size_) at_++;
    return text;
  }

  std::string rest() {
    size_t start = at_;
    at_ = size_;
    return bytes(start, size_);
  }

 private:
  const uint8_t* data_;
  size_t size_;
  size_t at_ = 0;

  std::string bytes(size_t from, size_t to) const {
    return from == to ? "" : std::string(reinterpret_cast<const char*>(data_) + from, to - from);
  }
};

/* Cuts bytes into chunks. Four sizes from the input are used in turn. 0 makes an empty chunk; 255 takes
 * everything that is left. */
class cutter {
 public:
  explicit cutter(input& in) {
    for (size_t& size : sizes_) size = in.byte();
  }

  std::vector<std::string> cut(const std::string& bytes) const {
    std::vector<std::string> chunks;
    size_t at = 0;
    for (size_t i = 0; at < bytes.size(); i++) {
      size_t n = sizes_[i % 4];
      if (n == 255 || (i >= 4 && sizes_[0] + sizes_[1] + sizes_[2] + sizes_[3] == 0)) n = bytes.size();
      chunks.push_back(bytes.substr(at, n));
      at += chunks.back().size();
    }
    return chunks;
  }

 private:
  size_t sizes_[4];
};

inline std::vector<std::string> byte_by_byte(const std::string& bytes) {
  std::vector<std::string> chunks;
  for (char c : bytes) chunks.emplace_back(1, c);
  return chunks;
}

/* Delivers a chunk in memory of exactly its size. The sanitizer sees every read after its end, and every use
 * after the call. */
template <class Connection>
void deliver(Connection& c, const std::string& chunk) {
  const std::vector<char> copy(chunk.begin(), chunk.end());
  char nothing = 0;
  c.on_recv(copy.empty() ? &nothing : const_cast<char*>(copy.data()), static_cast<int>(copy.size()));
}

/* An object of over 1 MiB, made and ended for every input. Its memory stays, because mapping pages and hiding
 * them from use would take longer than the rest. Only one object of each `Number` exists at a time. */
template <class T, int Number = 0>
class in_place {
 public:
  in_place() : object_(new (place()) T) {}
  in_place(const in_place&) = delete;
  in_place& operator=(const in_place&) = delete;
  ~in_place() { object_->~T(); }

  T& operator*() { return *object_; }
  T* operator->() { return object_; }

 private:
  T* object_;

  static void* place() {
    static void* const memory = malloc(sizeof(T));  // kept to the end
    return memory;
  }
};

}  // namespace fuzz
