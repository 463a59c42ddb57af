#include "base/split_url.h"

#include <vector>

#include "base/punycode.h"
#include "base/text.h"
#include "base/var.h"

namespace {

// Whether a separator was found with something in front of it. Positions are 32 bits and signed: npos is -1.
bool is_inside(size_t position) {
  return static_cast<int32_t>(position) >= 1;
}

int32_t default_port(const std::string& scheme) {
  return scheme == "https" ? 443 : scheme == "ftp" ? 21 : 80;
}

std::string label_to_ascii(const std::string& label) {
  std::vector<uint32_t> code_points;
  for (size_t i = 0; i < label.size();) code_points.push_back(base::utf8_decode(label, i));
  std::string encoded = base::punycode(code_points);
  return encoded == label ? label : "xn--" + encoded;
}

}  // namespace

split_url::split_url(const std::string& url) : scheme("http"), path("/") {
  std::string rest = url;
  size_t separator = rest.find("://");
  if (is_inside(separator)) {
    scheme = rest.substr(0, separator);
    rest.erase(0, separator + 3);
  } else if (rest.compare(0, 2, "//") == 0) {
    scheme = "https";  // the URL leaves the scheme open: the safer one
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
  const var labels = var(host).split(".");
  std::string out;
  for (int i = 0;; i++) {
    const var label = labels.get(i);
    if (label.kind != var::string_kind) return out;
    if (i > 0) out += ".";
    out += label_to_ascii(label);
  }
}
