#include "base/punycode.h"

#include <algorithm>
#include <tuple>

namespace base {

namespace {

// RFC 3492, section 5.
constexpr uint32_t radix = 36;  // called "base" there
constexpr uint32_t tmin = 1;
constexpr uint32_t tmax = 26;
constexpr uint32_t skew = 38;
constexpr uint32_t damp = 700;
constexpr uint32_t initial_bias = 72;
constexpr uint32_t initial_n = 128;

// Marks positions, and counts the marked ones below a given position, each in O(log n). The algorithm in the
// RFC walks over the whole input once for each distinct code point, so a hostile label of 100 KB would block
// all clients.
class position_counter {
 public:
  explicit position_counter(size_t size) : sums_(size + 1) {}

  void mark(size_t position) {
    for (size_t i = position + 1; i < sums_.size(); i += i & -i) sums_[i]++;
  }

  uint32_t count_below(size_t position) const {
    uint32_t sum = 0;
    for (size_t i = position; i > 0; i -= i & -i) sum += sums_[i];
    return sum;
  }

 private:
  std::vector<uint32_t> sums_;  // a binary indexed tree
};

// RFC 3492, section 6.1.
uint32_t adapt(uint32_t delta, uint32_t handled, bool is_first) {
  delta /= is_first ? damp : 2;
  delta += delta / handled;
  uint32_t k = 0;
  for (; delta > (radix - tmin) * tmax / 2; k += radix) delta /= radix - tmin;
  return k + (radix - tmin + 1) * delta / (delta + skew);
}

void append_integer(std::string& out, uint32_t q, uint32_t bias) {
  static const char alphabet[] = "abcdefghijklmnopqrstuvwxyz0123456789";
  for (uint32_t k = radix;; k += radix) {
    uint32_t t = k <= bias ? tmin : std::min(k - bias, tmax);
    if (q < t) break;
    out += alphabet[t + (q - t) % (radix - t)];
    q = (q - t) / (radix - t);
  }
  out += alphabet[q];
}

// Appends the ASCII code points of `input` to `out` and marks their places in `handled`. Returns the places
// of the other code points, sorted by code point, then by place.
std::vector<size_t> append_basic(const std::vector<uint32_t>& input, std::string& out,
                                 position_counter& handled) {
  std::vector<size_t> others;
  for (size_t i = 0; i < input.size(); i++) {
    if (input[i] < initial_n) {
      out += static_cast<char>(input[i]);
      handled.mark(i);
    } else {
      others.push_back(i);
    }
  }
  // The places make all elements different. std::stable_sort would allocate memory, and with libstdc++ 12 it
  // does not compile without a warning in clang 19.
  std::sort(others.begin(), others.end(),
            [&](size_t a, size_t b) { return std::tie(input[a], a) < std::tie(input[b], b); });
  return others;
}

}  // namespace

std::string punycode(const std::vector<uint32_t>& input) {
  std::string out;
  position_counter smaller(input.size());  // the places of the code points that are handled already
  const std::vector<size_t> order = append_basic(input, out, smaller);
  const auto basic = static_cast<uint32_t>(out.size());
  if (basic > 0 && !order.empty()) out += '-';

  uint32_t n = initial_n;
  uint32_t bias = initial_bias;
  uint32_t delta = 0;
  uint32_t handled = basic;
  for (size_t first = 0; first < order.size();) {
    const uint32_t m = input[order[first]];
    delta += (m - n) * (handled + 1);
    n = m;
    uint32_t passed = 0;  // how many smaller code points come before the last place handled
    size_t next = first;
    for (; next < order.size() && input[order[next]] == m; next++) {
      uint32_t below = smaller.count_below(order[next]);
      delta += below - passed;
      passed = below;
      append_integer(out, delta, bias);
      bias = adapt(delta, handled + 1, handled == basic);
      delta = 0;
      handled++;
    }
    delta += smaller.count_below(input.size()) - passed + 1;
    n++;
    for (; first < next; first++) smaller.mark(order[first]);
  }
  return out;
}

}  // namespace base
