#include "tls/import.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <stdio_ext.h>

#include <fstream>
#include <iterator>
#include <set>
#include <sstream>

#include "tests/support/console.h"
#include "tests/support/faults.h"
#include "tests/tls/printable_runs.h"
#include "tls/openssl.h"

namespace {

/* A library that is part of glibc and that nothing else uses. */
const char* const unused_library = "libBrokenLocale.so";

const char* const missing_library = "libmivo_has_no_such_library.so";

/* The linker's cache as lines, read without the code under test. */
std::string read_cache() {
  for (const char* path : {"/etc/ld.so.cache", "/var/cache/ldconfig/ld.so.cache"}) {
    std::ifstream file(path, std::ios::binary);
    if (file) return printable_runs({std::istreambuf_iterator<char>(file), {}});
  }
  return "";
}

const std::string& cache_lines() {
  static const std::string lines = read_cache();
  return lines;
}

/* The text after the first "/" that is followed by `name`, to the end of the line. */
std::string first_file_in_cache(const std::string& name) {
  std::istringstream lines(cache_lines());
  for (std::string line; std::getline(lines, line);) {
    size_t at = line.find("/" + name);
    if (at != std::string::npos) return line.substr(at + 1);
  }
  return name;
}

bool is_loaded(const std::string& file) {
  void* handle = dlopen(file.c_str(), RTLD_LAZY | RTLD_NOLOAD);
  if (handle) dlclose(handle);
  return handle != nullptr;
}

/* Runs `body` and returns what it writes to the descriptor of standard error. */
template <class F>
std::string standard_error_of(F body) {
  testing::internal::CaptureStderr();
  body();
  return testing::internal::GetCapturedStderr();
}

int fallback_target = 0;
void* const fallback = &fallback_target;

}  // namespace

TEST(import_probe, every_library_of_the_cache_is_found_by_its_name_up_to_so) {
  std::istringstream lines(cache_lines());
  std::set<std::string> names;
  for (std::string line; std::getline(lines, line);) {
    size_t slash = line.rfind('/'), end = line.find(".so", slash == std::string::npos ? 0 : slash);
    if (slash != std::string::npos && end != std::string::npos)
      names.insert(line.substr(slash + 1, end + 2 - slash));
  }
  ASSERT_GT(names.size(), 5U);
  for (const std::string& name : names) EXPECT_EQ(_import_probe(name), first_file_in_cache(name));
}

TEST(import_probe, name_must_follow_a_slash_directly) {
  EXPECT_EQ(_import_probe("ibc.so"), "ibc.so");  // it is only a part of libc.so
  EXPECT_EQ(_import_probe("libc.so"), first_file_in_cache("libc.so"));
}

TEST(import_probe, name_may_be_any_beginning_of_a_component) {
  for (const char* name : {"libc", "lib", "l"})
    EXPECT_EQ(_import_probe(name), first_file_in_cache(name)) << name;
}

TEST(import_probe, unknown_name_comes_back_unchanged_and_nothing_is_printed) {
  std::string found;
  EXPECT_EQ(standard_error_of([&] { found = _import_probe(missing_library); }), "");
  EXPECT_EQ(found, missing_library);
}

TEST(import_probe, cache_is_read_from_its_file_only_once) {
  faults::clear();
  for (const char* name : {"libc.so", missing_library}) _import_probe(name);
  EXPECT_EQ(faults::calls()["fopen"], 0);
}

TEST(import_library, opened_library_has_the_prefix_of_the_error_text) {
import library("libm.so");
  EXPECT_NE(library.handle, nullptr);
  EXPECT_EQ(library.error, "Error! Missing export(s) in libm.so:");
}

TEST(import_library, opening_prints_nothing) {
  console screen;
  EXPECT_EQ(standard_error_of([] { import library("libm.so"); }), "");
  EXPECT_EQ(screen.text(), "");
}

TEST(import_library, missing_library_is_printed_on_standard_error_only) {
  console screen;
  EXPECT_EQ(standard_error_of([] { import library(missing_library); }),
            "Unable to load libmivo_has_no_such_library.so\n");
  EXPECT_EQ(screen.text(), "");
}

TEST(import_library, missing_library_is_printed_at_once_even_if_standard_error_is_buffered) {
  size_t unflushed = 1;
  standard_error_of([&] {
    setvbuf(stderr, nullptr, _IOFBF, BUFSIZ);
import library(missing_library);
    unflushed = __fpending(stderr);
    setvbuf(stderr, nullptr, _IONBF, 0);
  });
  EXPECT_EQ(unflushed, 0U);
}

TEST(import_library, missing_library_leaves_a_usable_object_without_a_handle) {
  standard_error_of([] {
import library(missing_library);
    EXPECT_EQ(library.handle, nullptr);
    EXPECT_EQ(library.error, "Unable to load libmivo_has_no_such_library.so");
    EXPECT_EQ(library.proc("SSL_read_of_nowhere", fallback), fallback);
    EXPECT_EQ(library.error, "Unable to load libmivo_has_no_such_library.so\nSSL_read_of_nowhere");
  });
}

TEST(import_library, without_a_handle_the_whole_process_is_searched) {
  standard_error_of([] {
import library(missing_library);
    EXPECT_EQ(library.proc("qsort", fallback), dlsym(RTLD_DEFAULT, "qsort"));
    EXPECT_EQ(library.error, "Unable to load libmivo_has_no_such_library.so");
  });
}

TEST(import_library, without_a_handle_nothing_of_openssl_is_found) {
  standard_error_of([] {
import library(missing_library);
    for (const char* symbol : {"OpenSSL_version_num", "SSL_read", "SSL_CTX_new"})
      EXPECT_EQ(library.proc(symbol, fallback), fallback) << symbol;
  });
}

TEST(import_library, symbol_that_is_there_is_returned_and_adds_nothing_to_the_error) {
import library("libm.so");
  EXPECT_EQ(library.proc("cos", fallback), dlsym(library.handle, "cos"));
  EXPECT_EQ(library.error, "Error! Missing export(s) in libm.so:");
}

TEST(import_library, each_missing_symbol_adds_a_line_in_the_order_of_the_calls) {
import library("libm.so");
  EXPECT_EQ(library.proc("no_such_b", fallback), fallback);
  EXPECT_NE(library.proc("sin", fallback), fallback);
  EXPECT_EQ(library.proc("no_such_a", nullptr), nullptr);
  EXPECT_EQ(library.proc("no_such_b", fallback), fallback);
  EXPECT_EQ(library.error, "Error! Missing export(s) in libm.so:\nno_such_b\nno_such_a\nno_such_b");
}

TEST(import_library, library_stays_open_as_long_as_the_object_lives) {
  const std::string file = first_file_in_cache(unused_library);
  ASSERT_FALSE(is_loaded(file)) << "the test needs a library that nothing uses";
  {
import library(unused_library);
    EXPECT_NE(library.handle, nullptr);
    EXPECT_TRUE(is_loaded(file));
  }
  EXPECT_FALSE(is_loaded(file));
}
