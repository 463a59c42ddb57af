#include "tls/certificate_file.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <new>

std::string clean_path(const std::string& path) {
  std::string clean;
  for (size_t i = 0; i < path.size(); i++) {
    const bool after_slash = !clean.empty() && clean.back() == '/';
    if (path[i] == '/' || path[i] == '\\') {
      if (!after_slash) clean += '/';
    } else if (path[i] == '.' && after_slash && i + 1 < path.size() && path[i + 1] == '/') {
      // The dot is dropped; the slash after it then counts as doubled. A dot before a backslash stays.
    } else {
      clean += path[i];
    }
  }
  if (clean.size() >= 2 && clean.back() == '/') clean.pop_back();
  return clean;
}

double certificate_file_time(const std::string& path) noexcept {
  try {
    struct stat status;
    if (stat(clean_path(path).c_str(), &status) != 0) return 0;
    return static_cast<double>(status.st_mtim.tv_sec);
  } catch (const std::bad_alloc&) {  // this must not end a connection; the next look at the file may succeed
    return 0;
  }
}

namespace {

bool begins_certificate(const char* line) {
  for (const char* begin : {"-----BEGIN CERTIFICATE-----", "-----BEGIN X509 CERTIFICATE-----",
                            "-----BEGIN TRUSTED CERTIFICATE-----"}) {
    if (strncmp(line, begin, strlen(begin)) == 0) return true;
  }
  return false;
}

}  // namespace

int count_certificates(const std::string& path) {
  FILE* file = fopen(path.c_str(), "rb");
  if (!file) return 0;
  int count = 0;
  char line[256];
  bool is_start = true;  // false after a piece of a line that is too long for the buffer
  while (fgets(line, sizeof(line), file)) {
    if (is_start && begins_certificate(line)) count++;
    is_start = strchr(line, '\n') != nullptr;
  }
  fclose(file);
  return count;
}
