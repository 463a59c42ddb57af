/* block_pool: the memory of the blocks that byte queues are made of.
 *
 * A queue takes a block, owns it, and gives it back with the same size. Blocks of less than `full_size` bytes
 * come from malloc and return to it at once. Full-size blocks are kept for the next queue that needs one,
 * until the pool has `most_spare` of them. Without this, the blocks of a download would return to the system,
 * and new blocks one turn later would cause page faults: 1.33 instead of 1.14 ms of processor time for a
 * response of 1 MiB with 16 clients (wrk, release build, two busy cores of a virtual machine, medians of 5
 * rounds in which the two builds ran alternately). Sizes are bytes.
 *
 * Freed memory may still stay with the process: one used block near the end of the heap keeps everything
 * before it. So after a long queue the pool makes malloc return its free memory to the system. After 400 MiB
 * were queued, 8 MiB stay resident; without this, 136 MiB would (tests/system/test_hostile_upstreams.py). The
 * pool does this only when the queues are short again. A separate mapping for each block would make all this
 * unnecessary. But when data comes faster than the client takes it, each block would then cause 16 page
 * faults.
 *
 * Between calls: (1) 0 <= spare() <= most_spare, and no queue uses a spare block; (2) in_use() is the number
 * of full-size blocks that queues own; (3) freed() is the number of full-size blocks that were freed since
 * malloc was last trimmed; (4) freed() < freed_before_trim, or in_use() > in_use_when_short. */
#pragma once

#include <cstddef>

namespace base {

class block_pool {
 public:
  static constexpr size_t full_size = 65536;
  static constexpr int most_spare = 64;          // 4 MiB
  static constexpr int freed_before_trim = 256;  // 16 MiB
  static constexpr int in_use_when_short = 16;   // 1 MiB; malloc may keep these when they are freed

  block_pool() = default;
  block_pool(const block_pool&) = delete;
  block_pool& operator=(const block_pool&) = delete;

  /* Frees the spare blocks. Every block must have been given back. */
  ~block_pool();

  /* The pool of all byte queues. It is never destroyed: a queue may live until the process ends. */
  static block_pool& shared();

  /* Hands over a block of `size` bytes, at most full_size, with any content. Throws std::bad_alloc when
   * malloc has no memory; then the pool is unchanged. */
  void* take(size_t size);

  /* Takes back a block from take(). `size` must be the size that take() was called with. */
  void give_back(void* block, size_t size) noexcept;

  int spare() const { return spare_; }
  int in_use() const { return in_use_; }
  int freed() const { return freed_; }

 private:
  void* blocks_[most_spare] = {};
  int spare_ = 0;
  int in_use_ = 0;
  int freed_ = 0;

  void trim_maybe() noexcept;
};

}  // namespace base
