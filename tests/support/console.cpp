#include "tests/support/console.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>

console::console() {
  fflush(stdout);
  saved_ = dup(STDOUT_FILENO);
  file_ = memfd_create("console", 0);
  dup2(file_, STDOUT_FILENO);
}

console::~console() {
  fflush(stdout);
  // GoogleTest reports failures on standard output, too.
  std::string report = testing::Test::HasFailure() ? text() : "";
  dup2(saved_, STDOUT_FILENO);
  close(saved_);
  close(file_);
  printf("%s", report.c_str());
}

std::string console::text() {
  fflush(stdout);
  std::string s(static_cast<size_t>(lseek(file_, 0, SEEK_END)), '\0');
  s.resize(static_cast<size_t>(pread(file_, s.data(), s.size(), 0)));
  return s;
}

void console::clear() {
  fflush(stdout);
  if (ftruncate(file_, 0) == 0) lseek(file_, 0, SEEK_SET);
}
