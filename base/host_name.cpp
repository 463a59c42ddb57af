#include "base/host_name.h"

namespace base {

namespace {

constexpr size_t longest_name = 253;  // bytes, RFC 1035, section 2.3.4, without the length bytes
constexpr size_t longest_label = 63;

bool is_host_byte(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
}

}  // namespace

bool is_host_name(const std::string& host) {
  const size_t size = !host.empty() && host.back() == '.' ? host.size() - 1 : host.size();
  if (size > longest_name) return false;
  size_t label = 0;  // bytes of the current label so far
  for (size_t i = 0; i < size; i++) {
    if (host[i] == '.') {
      if (label == 0) return false;
      label = 0;
    } else if (!is_host_byte(host[i]) || ++label > longest_label) {
      return false;
    }
  }
  return label > 0;
}

}  // namespace base
