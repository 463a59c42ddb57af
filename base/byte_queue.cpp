#include "base/byte_queue.h"

#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

namespace base {

namespace {

constexpr size_t smallest_block = 512;  // bytes with the header, as all block sizes here
constexpr size_t largest_block = 65536;
constexpr size_t kept_when_empty = 4096;
constexpr int most_spare_blocks = 64;       // 4 MiB at most: what a turn moves through eight pipes
constexpr int blocks_before_trim = 256;     // 16 MiB
constexpr int blocks_of_short_queues = 16;  // 1 MiB: what these free later stays with malloc

}  // namespace

struct byte_queue::block {
  block* next;
  size_t capacity;  // bytes of data
  size_t begin;     // [begin, end) of the data is in the queue
  size_t end;

  char* data() { return reinterpret_cast<char*>(this + 1); }
};

namespace {

// Full-size blocks that no queue uses. A download would otherwise hand every block back to the system and
// fault it in again a turn later. Held by a static, so a leak checker sees them as reachable.
struct spare_blocks {
  void* blocks[most_spare_blocks];
  int count = 0;
  int in_queues = 0;  // full-size blocks that queues hold
  int freed = 0;      // full-size blocks that malloc has had back since its memory was last trimmed
};

spare_blocks& spare() {
  static spare_blocks s;
  return s;
}

}  // namespace

byte_queue::~byte_queue() {
  while (head_) drop_head();
}

byte_queue& byte_queue::operator=(const std::string& s) {
  clear();
  return append(s);
}

byte_queue& byte_queue::append(const char* data, size_t len) {
  size_ += len;
  while (len > 0) {
    block* b = tail_;
    if (!b || b->end == b->capacity) b = add_block(len);
    size_t n = std::min(len, b->capacity - b->end);
    memcpy(b->data() + b->end, data, n);
    b->end += n;
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

// Appends an empty block, sized for `wanted` bytes and for a queue that has grown before.
byte_queue::block* byte_queue::add_block(size_t wanted) {
  size_t bytes = std::max(wanted + sizeof(block), std::min(size_, largest_block));
  block* b = new_block(std::min(std::max(bytes, smallest_block), largest_block));
  (tail_ ? tail_->next : head_) = b;
  tail_ = b;
  return b;
}

void byte_queue::drop_head() {
  block* b = head_;
  head_ = b->next;
  if (!head_) tail_ = nullptr;
  free_block(b);
}

// An empty queue keeps a small block for the next message, and nothing larger.
void byte_queue::reset_last_block() {
  if (!head_) return;
  if (head_->capacity + sizeof(block) > kept_when_empty)
    drop_head();
  else
    head_->begin = head_->end = 0;
}

byte_queue::block* byte_queue::new_block(size_t bytes) {
  spare_blocks& s = spare();
  void* memory = bytes == largest_block && s.count > 0 ? s.blocks[--s.count] : malloc(bytes);
  if (!memory) throw std::bad_alloc();
  if (bytes == largest_block) s.in_queues++;
  return new (memory) block{nullptr, bytes - sizeof(block), 0, 0};
}

namespace {

// After a long queue, a single block that is still in use near the end of the heap, a spare one for example,
// would keep all the free memory before it from the system. So malloc is told to return it, once the queues
// are short again. Mapping every block on its own would do as well, at the price of a mapping and 16 page
// faults for each block of a download that runs ahead.
void trim_malloc_maybe(spare_blocks& s) {
  if (s.freed < blocks_before_trim || s.in_queues > blocks_of_short_queues) return;
  malloc_trim(0);
  s.freed = 0;
}

}  // namespace

void byte_queue::free_block(block* b) {
  if (b->capacity + sizeof(block) != largest_block) {
    free(b);
    return;
  }
  spare_blocks& s = spare();
  s.in_queues--;
  if (s.count < most_spare_blocks) {
    s.blocks[s.count++] = b;
  } else {
    free(b);
    s.freed++;
  }
  trim_malloc_maybe(s);
}

}  // namespace base
