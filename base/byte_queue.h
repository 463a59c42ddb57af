/* byte_queue: a byte string that is appended to at the back and consumed from the front.
 *
 * The bytes stand in a chain of blocks, so both ends cost O(1) per byte however long the queue is and
 * however slowly it drains; nothing is ever moved to make room. Owns its blocks. Blocks grow with the
 * queue, from 512 bytes to 64 KiB. Up to 64 full-size ones that no queue needs are kept for all queues, and
 * once 16 MiB more were freed and the queues are short, malloc is told to return them to the system. An
 * emptied queue keeps at most one block of 4 KiB. Sizes are bytes.
 *
 * Between calls: (1) size_ is the sum of what the blocks hold; (2) no block but the last is empty;
 * (3) head_ is null exactly when tail_ is. */
#pragma once

#include <cstddef>
#include <string>

namespace base {

class byte_queue {
 public:
  byte_queue() = default;
  byte_queue(const std::string& s) { append(s); }
  byte_queue(const char* s) { append(s); }
  byte_queue(const byte_queue&) = delete;
  byte_queue& operator=(const byte_queue&) = delete;
  ~byte_queue();

  /* Replaces the content. */
  byte_queue& operator=(const std::string& s);
  byte_queue& operator=(const char* s) { return *this = std::string(s); }

  /* Appends `len` bytes, which are copied. Throws std::bad_alloc when there is no memory; the queue is then
   * fit for nothing but its destruction. */
  byte_queue& append(const char* data, size_t len);
  byte_queue& append(const std::string& s) { return append(s.data(), s.size()); }
  byte_queue& operator+=(const std::string& s) { return append(s); }

  size_t size() const { return size_; }
  size_t length() const { return size_; }
  bool empty() const { return size_ == 0; }

  /* Drops the content. */
  void clear();

  /* Moves the first min(cap, size()) bytes to `buf` and returns their number. */
  size_t consume(char* buf, size_t cap);

  /* The content as one string: a copy, for answers that are compared or printed, not for the data path. */
  std::string str() const;
  operator std::string() const { return str(); }

 private:
  struct block;

  block* head_ = nullptr;
  block* tail_ = nullptr;
  size_t size_ = 0;

  block* add_block(size_t wanted);
  void drop_head();
  void reset_last_block();

  static block* new_block(size_t bytes);
  static void free_block(block* b);
};

inline bool operator==(const byte_queue& a, const byte_queue& b) {
  return a.size() == b.size() && a.str() == b.str();
}
inline bool operator==(const byte_queue& a, const std::string& b) {
  return a.size() == b.size() && a.str() == b;
}
inline bool operator==(const byte_queue& a, const char* b) {
  return a == std::string(b);
}
inline bool operator==(const std::string& a, const byte_queue& b) {
  return b == a;
}
inline bool operator==(const char* a, const byte_queue& b) {
  return b == a;
}

template <class S>
bool operator!=(const byte_queue& a, const S& b) {
  return !(a == b);
}
inline bool operator!=(const std::string& a, const byte_queue& b) {
  return !(b == a);
}
inline bool operator!=(const char* a, const byte_queue& b) {
  return !(b == a);
}

}  // namespace base
