/* byte_queue: a queue of bytes, which are appended at the back and consumed from the front.
 *
 * The bytes lie in a chain of blocks, so adding or removing a byte costs O(1), however long the queue is
 * and however slowly it drains. No byte is ever moved to make room. The queue takes its blocks from
 * base::block_pool, owns them while it needs them, and then gives them back. Blocks grow with the queue, from
 * 512 bytes to 64 KiB. An emptied queue keeps at most one block of 4 KiB. Sizes are bytes.
 *
 * Between calls, also after a failed one: (1) size() is the sum of what the blocks hold; (2) only the last
 * block may be empty; (3) head_ is null exactly when tail_ is. */
#pragma once

#include <cstddef>
#include <string>

namespace base {

class byte_queue {
 public:
  byte_queue() = default;
  // These two run the default constructor first, so the destructor runs even if append() throws.
  byte_queue(const std::string& s) : byte_queue() { append(s); }
  byte_queue(const char* s) : byte_queue() { *this = s; }
  byte_queue(const byte_queue&) = delete;
  byte_queue& operator=(const byte_queue&) = delete;
  ~byte_queue();

  /* Replaces the content. After std::bad_alloc the queue is valid and holds the first bytes of the new
   * content, or nothing. */
  byte_queue& operator=(const std::string& s);
  byte_queue& operator=(const char* s);

  /* Appends `len` bytes, which are copied. Throws std::bad_alloc when there is no memory for all of them. The
   * queue is valid then: it holds its old content, followed by the bytes for which there was memory. The
   * caller can tell their number from size(). */
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

  /* A copy of the content as one string, to compare or to print it; too slow for the data path. */
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
