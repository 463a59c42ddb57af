#include "base/byte_queue.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "base/block_pool.h"

namespace base {

namespace {

constexpr size_t smallest_block = 512;  // bytes; all block sizes here include the header
constexpr size_t kept_when_empty = 4096;

}  // namespace

struct byte_queue::block {
  block* next;
  size_t capacity;  // bytes of data
  size_t begin;     // [begin, end) of the data is in the queue
  size_t end;

  char* data() { return reinterpret_cast<char*>(this + 1); }
  size_t size() const { return sizeof(block) + capacity; }
};

byte_queue::~byte_queue() {
  while (head_) drop_head();
}

byte_queue& byte_queue::operator=(const std::string& s) {
  clear();
  return append(s);
}

byte_queue& byte_queue::operator=(const char* s) {
  clear();
  return append(s, strlen(s));
}

byte_queue& byte_queue::append(const char* data, size_t len) {
  while (len > 0) {
    block* b = tail_;
    if (!b || b->end == b->capacity) b = add_block(len);
    size_t n = std::min(len, b->capacity - b->end);
    memcpy(b->data() + b->end, data, n);
    b->end += n;
    size_ += n;
    data += n;
    len -= n;
  }
  return *this;
}

void byte_queue::clear() {
  while (head_ && head_->next) drop_head();
  size_ = 0;
  reset_last_block();
}

size_t byte_queue::consume(char* buf, size_t cap) {
  size_t done = 0;
  while (done < cap && size_ > 0) {
    block* b = head_;
    size_t n = std::min(cap - done, b->end - b->begin);
    memcpy(buf + done, b->data() + b->begin, n);
    b->begin += n;
    done += n;
    size_ -= n;
    if (b->begin == b->end && b->next) drop_head();
  }
  if (size_ == 0) reset_last_block();
  return done;
}

std::string byte_queue::str() const {
  std::string s;
  s.reserve(size_);
  for (block* b = head_; b; b = b->next) s.append(b->data() + b->begin, b->end - b->begin);
  return s;
}

// Appends an empty block. Its size grows with the queue. It holds `wanted` bytes, unless a block of the
// largest size cannot.
byte_queue::block* byte_queue::add_block(size_t wanted) {
  const size_t size = std::max(wanted + sizeof(block), size_ + wanted);
  const size_t bytes = std::clamp(size, smallest_block, block_pool::full_size);
  block* b = new (block_pool::shared().take(bytes)) block{nullptr, bytes - sizeof(block), 0, 0};
  (tail_ ? tail_->next : head_) = b;
  tail_ = b;
  return b;
}

void byte_queue::drop_head() {
  block* b = head_;
  head_ = b->next;
  if (!head_) tail_ = nullptr;
  block_pool::shared().give_back(b, b->size());
}

// An empty queue keeps a small block for the next message, and nothing larger.
void byte_queue::reset_last_block() {
  if (!head_) return;
  if (head_->size() > kept_when_empty)
    drop_head();
  else
    head_->begin = head_->end = 0;
}

}  // namespace base
