#include "base/block_pool.h"

#include <malloc.h>

#include <cstdlib>
#include <new>

namespace base {

block_pool& block_pool::shared() {
  alignas(block_pool) static unsigned char memory[sizeof(block_pool)];
  static auto* pool = new (memory) block_pool;
  return *pool;
}

void* block_pool::take(size_t size) {
  const bool is_full = size == full_size;
  void* block = is_full && spare_ > 0 ? blocks_[--spare_] : malloc(size);
  if (!block) throw std::bad_alloc();
  if (is_full) in_use_++;
  return block;
}

void block_pool::give_back(void* block, size_t size) noexcept {
  if (size != full_size) {
    free(block);
    return;
  }
  in_use_--;
  if (spare_ < most_spare) {
    blocks_[spare_++] = block;
  } else {
    free(block);
    freed_++;
  }
  trim_maybe();
}

void block_pool::trim_maybe() noexcept {
  if (freed_ < freed_before_trim || in_use_ > in_use_when_short) return;
#ifdef __GLIBC__  // other C libraries automatically return what they can
  malloc_trim(0);
#endif
  freed_ = 0;
}

block_pool::~block_pool() {
  while (spare_ > 0) free(blocks_[--spare_]);
}

}  // namespace base
