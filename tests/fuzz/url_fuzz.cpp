// URLs and international host names.
//
// Input: a URL. Rules: the parts are those of a plain splitter. The host is ASCII. Its labels are those of
// the unit tests' model of Punycode, and a decoder gives the original labels back.

#include "base/split_url.h"
#include "base/text.h"
#include "tests/base/punycode_model.h"
#include "tests/fuzz/fuzz.h"

using fuzz::expect;
using fuzz::expect_equal;

namespace {

// Splits at the first `separator` that is not at the very start; false when there is none.
bool split_off(const std::string& text, const std::string& separator, std::string& before,
               std::string& behind) {
  const size_t at = text.find(separator);
  if (at == 0 || at == std::string::npos) return false;
  const std::string copy = text;
  before = copy.substr(0, at);
  behind = copy.substr(at + separator.size());
  return true;
}

struct plain_url {
  std::string scheme = "http";
  std::string host;
  long port = 0;
  std::string path = "/";

  explicit plain_url(const std::string& url) : host(url) {
    std::string tail;
    if (!split_off(url, "://", scheme, host) && url.substr(0, 2) == "//") {
      scheme = "https";
      host = url.substr(2);
    }
    if (split_off(host, "/", host, tail)) path = "/" + tail;
    if (split_off(host, ":", host, tail))
      port = static_cast<int32_t>(strtol(tail.c_str(), nullptr, 10));
    else
      port = scheme == "https" ? 443 : scheme == "ftp" ? 21 : 80;
  }
};

std::vector<uint32_t> code_points_of(const std::string& label) {
  std::vector<uint32_t> all;
  for (size_t at = 0; at < label.size();) {
    const size_t before = at;
    all.push_back(base::utf8_decode(label, at));
    expect(at > before && at <= label.size(), "decoding goes on, and not beyond the end");
  }
  return all;
}

// RFC 3492, section 6.2. False when the numbers do not fit, as with invalid labels.
bool decode_punycode(const std::string& text, std::vector<uint32_t>& out) {
  const size_t delimiter = text.rfind('-');
  size_t at = 0;
  if (delimiter != std::string::npos && delimiter > 0) {
    for (char c : text.substr(0, delimiter)) out.push_back(static_cast<unsigned char>(c));
    at = delimiter + 1;
  }
  const uint32_t first = static_cast<uint32_t>(out.size());
  uint64_t n = 128, i = 0;
  uint32_t bias = 72;
  while (at < text.size()) {
    const uint64_t old = i;
    uint64_t weight = 1;
    for (uint32_t k = 36;; k += 36) {
      if (at == text.size()) return false;
      const char c = text[at++];
      const uint64_t digit = static_cast<uint64_t>(c >= 'a' ? c - 'a' : c - '0' + 26);
      i += digit * weight;
      if (i > UINT32_MAX) return false;
      const uint32_t t = digit_threshold(k, bias);
      if (digit < t) break;
      weight *= 36 - t;
      if (weight > UINT32_MAX) return false;
    }
    const auto count = static_cast<uint32_t>(out.size()) + 1;
    bias = adapted_bias(static_cast<uint32_t>(i - old), count, out.size() == first);
    n += i / count;
    if (n > UINT32_MAX) return false;
    i %= count;
    out.insert(out.begin() + static_cast<std::ptrdiff_t>(i++), static_cast<uint32_t>(n));
  }
  return true;
}

// Invalid code points make the 32-bit numbers of the encoder wrap. No decoder can undo that.
bool is_reversible(const std::vector<uint32_t>& label) {
  if (label.size() > 1000) return false;
  for (uint32_t code : label) {
    if (code > 0x10FFFF) return false;
  }
  return true;
}

void check_label(const std::string& ascii, const std::string& label) {
  const std::vector<uint32_t> input = code_points_of(label);
  const std::string encoded = encode_punycode(input);
  if (encoded == label) {
    expect_equal(ascii, label, "a plain label is left alone");
    return;
  }
  expect_equal(ascii, "xn--" + encoded, "a label is what the model makes of it");
  if (!is_reversible(input)) return;
  std::vector<uint32_t> back;
  expect(decode_punycode(encoded, back) && back == input, "a label can be decoded");
}

void check_host(const std::string& ascii, const std::string& host) {
  for (char c : ascii) expect((c & 0x80) == 0, "a host is ASCII");
  size_t at = 0, ascii_at = 0;
  for (;;) {
    const size_t end = host.find('.', at);
    const size_t ascii_end = ascii.find('.', ascii_at);
    expect((end == host.npos) == (ascii_end == ascii.npos), "there are as many labels as there were");
    const std::string label = host.substr(at, end - at).c_str();  // up to the first zero byte
    check_label(ascii.substr(ascii_at, ascii_end - ascii_at), label);
    if (end == host.npos) return;
    at = end + 1;
    ascii_at = ascii_end + 1;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string url = fuzz::input(data, size).rest();
  const split_url split(url);
  const plain_url plain(url);
  expect_equal(split.scheme, plain.scheme, "the scheme");
  expect_equal(split.path, plain.path, "the path");
  expect(split.port == plain.port, "the port");
  check_host(split.host, plain.host);
  return 0;
}
