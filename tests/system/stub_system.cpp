// Preloaded into the program. MIVO_STUB_ETC_CACHE and MIVO_STUB_VAR_CACHE, if they are set, name files that
// replace the linker's caches. The clock is ahead by the seconds that are written in the file that
// MIVO_STUB_CLOCK names. Every line on standard output is written at once.

#include <fcntl.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

const char* replacement(const char* path) {
  const char* instead = nullptr;
  if (strcmp(path, "/etc/ld.so.cache") == 0) instead = getenv("MIVO_STUB_ETC_CACHE");
  if (strcmp(path, "/var/cache/ldconfig/ld.so.cache") == 0) instead = getenv("MIVO_STUB_VAR_CACHE");
  return instead ? instead : path;
}

__attribute__((constructor)) void write_lines_at_once() {
  setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
}

}  // namespace

extern "C" {

// The program opens files only to read them.
FILE* fopen(const char* path, const char* mode) {
  int file = open(replacement(path), O_RDONLY | O_CLOEXEC);
  return file == -1 ? nullptr : fdopen(file, mode);
}

time_t time(time_t* out) noexcept {
  timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  const char* path = getenv("MIVO_STUB_CLOCK");
  if (FILE* file = path ? fopen(path, "r") : nullptr) {
    long ahead = 0;
    if (fscanf(file, "%ld", &ahead) == 1) now.tv_sec += ahead;
    fclose(file);
  }
  if (out) *out = now.tv_sec;
  return now.tv_sec;
}

}  // extern "C"
