#include "base/hashmap.h"

uint32_t base::tovel_hash(const char* s, unsigned len) {
  // Plain char is unsigned on some machines.
  auto byte = [s](unsigned i) { return static_cast<uint32_t>(static_cast<signed char>(s[i])); };
  uint32_t h = 19;
  for (unsigned i = 1; i < len; i++) h = h * byte(i) + 13;
  uint32_t x = ((h + byte(0)) * 4) ^ byte(0);
  uint32_t y = x * 11 + 7;
  return y ^ (y >> 16);
}
