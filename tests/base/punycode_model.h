/* punycode_model: Punycode as RFC 3492 describes it, step by step, slow and plain, to check the real encoder.
 * Arithmetic is on 32 bits and wraps. */
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

using code_points = std::vector<uint32_t>;

// Section 6.1.
inline uint32_t adapted_bias(uint32_t delta, uint32_t handled, bool is_first) {
  delta = is_first ? delta / 700 : delta / 2;
  delta += delta / handled;
  uint32_t k = 0;
  while (delta > 455) {
    delta /= 35;
    k += 36;
  }
  return k + 36 * delta / (delta + 38);
}

inline uint32_t digit_threshold(uint32_t k, uint32_t bias) {
  if (k <= bias) return 1;
  return std::min(k - bias, 26u);
}

// Section 6.3, with one difference: the delimiter is only written if encoded code points follow.
inline std::string encode_punycode(const code_points& input) {
  std::string out;
  for (uint32_t c : input) {
    if (c < 0x80) out += static_cast<char>(c);
  }
  const auto basic = static_cast<uint32_t>(out.size());
  if (basic > 0 && basic < input.size()) out += '-';
  uint32_t n = 0x80, delta = 0, bias = 72, handled = basic;
  while (handled < input.size()) {
    uint32_t m = 0xFFFFFFFF;
    for (uint32_t c : input) {
      if (c >= n) m = std::min(m, c);
    }
    delta += (m - n) * (handled + 1);
    n = m;
    for (uint32_t c : input) {
      if (c < n) delta++;
      if (c != n) continue;
      uint32_t q = delta;
      for (uint32_t k = 36;; k += 36) {
        const uint32_t t = digit_threshold(k, bias);
        if (q < t) break;
        out += "abcdefghijklmnopqrstuvwxyz0123456789"[t + (q - t) % (36 - t)];
        q = (q - t) / (36 - t);
      }
      out += "abcdefghijklmnopqrstuvwxyz0123456789"[q];
      bias = adapted_bias(delta, handled + 1, handled == basic);
      delta = 0;
      handled++;
    }
    delta++;
    n++;
  }
  return out;
}

// Section 6.2. Only for text that the encoder wrote.
inline code_points decode_punycode(const std::string& text) {
  const size_t delimiter = text.rfind('-');
  const size_t basic = delimiter == std::string::npos ? 0 : delimiter;
  code_points out(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(basic));
  uint32_t n = 0x80, i = 0, bias = 72;
  for (size_t at = basic > 0 ? basic + 1 : 0; at < text.size();) {
    const uint32_t old_i = i;
    uint32_t weight = 1;
    for (uint32_t k = 36; at < text.size(); k += 36) {
      const char c = text[at++];
      const auto digit = static_cast<uint32_t>(c >= 'a' ? c - 'a' : c - '0' + 26);
      i += digit * weight;
      const uint32_t t = digit_threshold(k, bias);
      if (digit < t) break;
      weight *= 36 - t;
    }
    const auto length = static_cast<uint32_t>(out.size()) + 1;
    bias = adapted_bias(i - old_i, length, old_i == 0);
    n += i / length;
    i %= length;
    out.insert(out.begin() + i, n);
    i++;
  }
  return out;
}
