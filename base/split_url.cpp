#include "base/split_url.h"

#include <algorithm>
#include <vector>

#include "base/punycode.h"
#include "base/text.h"

namespace {

// Whether a separator was found and there is something before it. Positions are cut to signed 32 bits, so
// npos is -1.
bool is_inside(size_t position) {
  return static_cast<int32_t>(position) >= 1;
}

int32_t default_port(const std::string& scheme) {
  return scheme == "https" ? 443 : scheme == "ftp" ? 21 : 80;
}

void append_label(std::string& to, const std::string& label) {
  const bool is_ascii = std::all_of(label.begin(), label.end(), [](char c) { return (c & 0x80) == 0; });
  if (is_ascii) {  // Punycode would give the same
    to += label;
    return;
  }
  std::vector<uint32_t> code_points;
  for (size_t i = 0; i < label.size();) code_points.push_back(base::utf8_decode(label, i));
  to.append("xn--").append(base::punycode(code_points));
}

}  // namespace

split_url::split_url(const std::string& url) : scheme("http"), path("/") {
  std::string rest = url;
  size_t separator = rest.find("://");
  if (is_inside(separator)) {
    scheme = rest.substr(0, separator);
    rest.erase(0, separator + 3);
  } else if (rest.compare(0, 2, "//") == 0) {
    scheme = "https";  // the URL leaves the scheme open, so the safer one is taken
    rest.erase(0, 2);
  }

  size_t slash = rest.find('/');
  if (is_inside(slash)) {
    path = rest.substr(slash);
    rest.resize(slash);
  }

  size_t colon = rest.find(':');
  if (is_inside(colon)) {
    port = base::parse_int(rest.c_str() + colon + 1);
    rest.resize(colon);
  } else {
    port = default_port(scheme);
  }
  host = utf8_to_idn(rest);
}

std::string split_url::utf8_to_idn(const std::string& host) {
  std::string out;
  for (size_t start = 0;;) {
    const size_t dot = host.find('.', start);
    const std::string label = host.substr(start, dot - start);
    append_label(out, label.substr(0, label.find('\0')));
    if (dot == std::string::npos) return out;
    out += '.';
    start = dot + 1;
  }
}
