/* heap: how many bytes the process holds from the allocator, with and without the address sanitizer. */
#pragma once

#include <malloc.h>

#include <cstddef>

#if defined(__SANITIZE_ADDRESS__)
#define MIVO_HAS_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define MIVO_HAS_ASAN 1
#endif
#endif

#ifdef MIVO_HAS_ASAN
// From the sanitizer's run-time library. Not every compiler package contains its headers.
extern "C" size_t __sanitizer_get_current_allocated_bytes();

inline size_t bytes_in_use() {
  return __sanitizer_get_current_allocated_bytes();
}
#else
inline size_t bytes_in_use() {
  struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}
#endif
