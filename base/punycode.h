/* Punycode: a sequence of code points as ASCII text. */
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace base {

/* The Punycode form of `input` (RFC 3492, section 6.3), lower case, without the "xn--". It calculates with 32
 * bits and without overflow checks, so absurd input gives absurd text, never an error. Costs O(n log n). */
std::string punycode(const std::vector<uint32_t>& input);

}  // namespace base
