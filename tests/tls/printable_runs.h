/* printable_runs: what a scan for printable strings must find, computed from the whole text at once. */
#pragma once

#include <string>

/* Every run of 5 or more bytes from 0x20 to 0x7f, one a line. A run at the end of the text does not count. */
inline std::string printable_runs(const std::string& bytes) {
  std::string ends;
  for (int c = 0; c < 256; c++) {
    if (c < 0x20 || c > 0x7f) ends += static_cast<char>(c);
  }
  std::string lines;
  size_t start = 0, end = 0;
  while ((end = bytes.find_first_of(ends, start)) != std::string::npos) {
    if (end - start >= 5) lines += bytes.substr(start, end - start) + '\n';
    start = end + 1;
  }
  return lines;
}
