#include "tls/import.h"

#include <dlfcn.h>

#include <cstdio>

namespace {

constexpr size_t block_size = 4096;  // bytes
constexpr size_t longest_noise = 4;  // bytes; printable runs up to this length occur by chance

}  // namespace

// The format of the cache does not matter: in every version of it, the paths are printable.
bool get_strings(const std::string& path, std::string& out) {
  FILE* file = fopen(path.c_str(), "rb");
  if (!file) return false;
  std::string run;
  char block[block_size];
  size_t n = 0;
  do {
    n = fread(block, 1, block_size, file);
    for (size_t i = 0; i < n; i++) {
      if (static_cast<signed char>(block[i]) >= 32) {
        run += block[i];
      } else {
        if (run.size() > longest_noise) out += run + "\n";
        run.clear();
      }
    }
  } while (n == block_size);
  fclose(file);
  return true;
}

std::string _import_probe(const std::string& name) {
  static std::string cache;
  if (cache.empty() && !get_strings("/etc/ld.so.cache", cache) &&
      !get_strings("/var/cache/ldconfig/ld.so.cache", cache)) {
    fprintf(stderr, "Unable to find ld.so.cache!\n");
    fflush(stderr);
  }
  size_t slash = cache.find("/" + name);
  if (slash == std::string::npos) return name;
  // Every run that get_strings() has found ends with a line feed.
  return cache.substr(slash + 1, cache.find('\n', slash) - slash - 1);
}

// In C++20 the class's name is a keyword, and the formatter already takes it for one.
// clang-format off
import::import(const std::string& name) : handle(dlopen(_import_probe(name).c_str(), RTLD_LAZY)) {
  if (handle) {
    error = "Error! Missing export(s) in " + name + ":";
  } else {
    error = "Unable to load " + name;
    fprintf(stderr, "%s\n", error.c_str());
    fflush(stderr);
  }
}

import::~import() {
  if (handle) dlclose(handle);
}
// clang-format on

void* import::proc(const std::string& symbol, void* fallback) {
  void* address = dlsym(handle, symbol.c_str());
  if (address) return address;
  error += "\n" + symbol;
  return fallback;
}
