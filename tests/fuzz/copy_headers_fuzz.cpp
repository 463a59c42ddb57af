// The header filter of the proxies.
//
// Input: the head. Rule: the result is that of the filter's description, applied step by step.

#include "proxy/http_proxy.h"
#include "tests/fuzz/fuzz.h"

namespace {

bool starts_with(const std::string& text, const std::string& prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

std::string plain_copy(const std::string& head) {
  std::string lines;
  size_t line_end = head.find("\r\n");
  if (line_end == 0) return "";
  while (line_end != std::string::npos) {
    const std::string rest = head.substr(line_end + 2);
    const size_t length = rest.size() < 2 ? std::string::npos : rest.find("\r\n", 2);
    if (length == std::string::npos) break;
    const std::string line = rest.substr(0, length);
    if (!starts_with(line, "Proxy") && !starts_with(line, "Connection")) lines += line + "\r\n";
    line_end += 2 + length;
  }
  return lines;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string head = fuzz::input(data, size).rest();
  const std::string lines = http_proxy::copy_headers(head);
  fuzz::expect_equal(lines, plain_copy(head), "the lines are those that the description keeps");
  fuzz::expect(lines.size() <= head.size(), "nothing is added");
  return 0;
}
