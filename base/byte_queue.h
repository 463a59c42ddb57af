/* byte_queue: a byte string that is appended to at the back and consumed from the front.
 *
 * The bytes stand in a chain of blocks, so both ends cost O(1) per byte however long the queue is and
 * however slowly it drains; nothing is ever moved to make room. The queue owns its blocks while it needs them
 * and gives them back to base::block_pool. Blocks grow with the queue, from 512 bytes to 64 KiB. An emptied
 * queue keeps at most one block of 4 KiB. Sizes are bytes.
 *
 * Between calls, failed ones included: (1) size() is the sum of what the blocks hold; (2) no block but the
 * last is empty; (3) head_ is null exactly when tail_ is. */
#pragma once

#include <cstddef>
#include <string>

namespace base {

class byte_queue {
 public:
  byte_queue() = default;
  // By way of the first, after which the destructor runs even if a block is refused.
  byte_queue(const std::string& s) : byte_queue() { append(s); }
  byte_queue(const char* s) : byte_queue() { *this = s; }
  byte_queue(const byte_queue&) = delete;
  byte_queue& operator=(const byte_queue&) = delete;
  ~byte_queue();

  /* Replaces the content. After std::bad_alloc, the queue is whole and holds the first bytes of the new
   * one, or none. */
  byte_queue& operator=(const std::string& s);
  byte_queue& operator=(const char* s);

  /* Appends `len` bytes, which are copied. Throws std::bad_alloc when there is no memory for all of them. The
   * queue is whole then: it holds what it held, then as many of the first bytes as found room. The caller can
   * tell their number by size(). */
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
};

inline bool operator==(const byte_queue& a, const std::string& b) {
  return a.size() == b.size() && a.str() == b;
}
inline bool operator==(const std::string& a, const byte_queue& b) {
  return b == a;
}
inline bool operator!=(const byte_queue& a, const std::string& b) {
  return !(a == b);
}
inline bool operator!=(const std::string& a, const byte_queue& b) {
  return !(b == a);
}

}  // namespace base
