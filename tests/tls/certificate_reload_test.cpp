// When the certificate is loaded, and loaded again. The tests set the clock and the time of the file.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <stdio_ext.h>

#include <filesystem>

#include "tests/tls/ssl_server_fixture.h"
#include "tests/tls/temp_folder.h"

// When a test takes the library away, the program finds this function in the test program itself.
extern "C" int SSL_CTX_use_certificate_chain_file(void*, const char* path);

namespace {

constexpr int64_t old_time = 1500000000;

const std::string pem = "-----BEGIN CERTIFICATE-----\nMIIB\n-----END CERTIFICATE-----\n";

// The calls of the library's function for chains, and what it returns.
std::vector<std::string> chain_calls;
int chain_result = 1;

const std::string reloading = "Reloading certificate...\n";

struct certificate_reload : ssl_server_fixture {
  certificate_reload() { use_path(crt); }

  void use_path(const std::string& path) {
    make_server("key.pem", path);
    load_call = "SSL_CTX_use_certificate_file(ctx, " + path + ", 1)";
    tls.take_notes();
  }

  void modify_file(int64_t at) const {
    folder.write("crt.pem", "a certificate");
    set_file_time(crt, at);
  }

  void pass(int seconds) { faults::clock_offset() += seconds; }

  void check() { srv->load_certificate_maybe(); }
  void check_in(int seconds) {
    pass(seconds);
    check();
  }

  void expect_load(const std::string& printed) {
    expect_notes({load_call});
    expect_console(printed);
  }
  void expect_no_load() {
    expect_notes({});
    expect_console("");
  }

  /* Loads the file as the program does at its start. */
  void load_first(int64_t file_time = old_time) {
    modify_file(file_time);
    check();
    expect_load("");
  }

  temp_folder folder;
  const std::string crt = folder.path() + "/crt.pem";
  std::string load_call;
};

}  // namespace

extern "C" int SSL_CTX_use_certificate_chain_file(void*, const char* path) {
  chain_calls.push_back(path);
  return chain_result;
}

TEST_F(certificate_reload, first_load_prints_nothing_and_remembers_both_times) {
  load_first();
  EXPECT_EQ(srv->crt_mtime, static_cast<double>(old_time));
  EXPECT_EQ(srv->last_check, static_cast<double>(start_time));
}

TEST_F(certificate_reload, touched_file_is_reloaded_once) {
  load_first();
  modify_file(old_time + 1);
  check_in(61);
  expect_load(reloading);
  EXPECT_EQ(srv->crt_mtime, static_cast<double>(old_time + 1));
  check_in(61);
  expect_no_load();
}

TEST_F(certificate_reload, file_is_looked_at_only_when_more_than_60_seconds_have_passed) {
  load_first();
  modify_file(old_time + 1);
  for (int seconds : {0, 1, 58, 1}) {  // 60 in all
    check_in(seconds);
    expect_no_load();
    EXPECT_EQ(srv->last_check, static_cast<double>(start_time));
  }
  check_in(1);
  expect_load(reloading);
}

TEST_F(certificate_reload, look_that_finds_nothing_new_starts_the_interval_again) {
  load_first();
  check_in(61);
  expect_no_load();
  EXPECT_EQ(srv->last_check, static_cast<double>(start_time + 61));
  modify_file(old_time + 1);
  check_in(60);
  expect_no_load();
  check_in(1);
  expect_load(reloading);
}

TEST_F(certificate_reload, file_of_the_same_time_or_an_older_one_is_not_loaded) {
  load_first();
  for (int64_t time : {old_time, old_time - 1, int64_t{1}, int64_t{0}}) {
    modify_file(time);
    check_in(61);
    expect_no_load();
    EXPECT_EQ(srv->crt_mtime, static_cast<double>(old_time));
  }
}

TEST_F(certificate_reload, fraction_of_a_second_is_not_seen) {
  load_first();
  set_file_time(crt, old_time, 999999999);
  check_in(61);
  expect_no_load();
}

TEST_F(certificate_reload, file_that_is_missing_at_first_is_loaded_silently_once_it_is_there) {
  check();
  expect_no_load();
  EXPECT_EQ(srv->crt_mtime, 0.0);
  EXPECT_EQ(srv->last_check, static_cast<double>(start_time));
  modify_file(old_time);
  check_in(60);
  expect_no_load();
  check_in(1);
  expect_load("");
}

TEST_F(certificate_reload, file_that_goes_away_is_no_reason_to_reload) {
  load_first();
  std::filesystem::remove(crt);
  check_in(61);
  expect_no_load();
  EXPECT_EQ(srv->crt_mtime, static_cast<double>(old_time));
  modify_file(old_time + 1);
  check_in(61);
  expect_load(reloading);
}

TEST_F(certificate_reload, file_of_time_0_is_never_loaded) {
  modify_file(0);
  check();
  expect_no_load();
}

TEST_F(certificate_reload, rejected_certificate_counts_as_loaded) {
  tls.result = 0;
  load_first();
  EXPECT_EQ(srv->crt_mtime, static_cast<double>(old_time));
  check_in(61);
  expect_no_load();
}

TEST_F(certificate_reload, reload_is_printed_and_remembered_before_the_library_is_called) {
  load_first();
  modify_file(old_time + 1);
  pass(61);
  tls.remove(openssl::SSL_CTX_use_certificate_file);
  EXPECT_THROW(check(), std::string);
  expect_console(reloading);
  EXPECT_EQ(srv->crt_mtime, static_cast<double>(old_time + 1));
}

TEST_F(certificate_reload, line_of_a_reload_is_not_flushed) {
  if (__flbf(stdout)) GTEST_SKIP() << "a terminal gets each line at once";
  load_first();
  modify_file(old_time + 1);
  check_in(61);
  EXPECT_EQ(__fpending(stdout), reloading.size());
}

TEST_F(certificate_reload, clock_that_is_set_back_stops_the_looks_at_the_file) {
  load_first();
  modify_file(old_time + 1);
  check_in(-100000);
  expect_no_load();
  EXPECT_EQ(srv->last_check, static_cast<double>(start_time));
}

TEST_F(certificate_reload, untidy_path_is_found_and_handed_over_as_written) {
  modify_file(old_time);
  for (const char* end : {"//crt.pem", "/./crt.pem", "\\crt.pem", "\\\\.//crt.pem", "/crt.pem/"}) {
    use_path(folder.path() + end);
    check();
    expect_load("");
  }
}

TEST_F(certificate_reload, idle_turn_looks_at_the_file) {
  load_first();
  modify_file(old_time + 1);
  pass(60);
  srv->on_idle();
  expect_no_load();
  pass(1);
  srv->on_idle();
  expect_load(reloading);
}

TEST_F(certificate_reload, idle_turn_without_a_context_does_nothing) {
  modify_file(old_time);
  srv->ctx = nullptr;
  srv->on_idle();
  expect_no_load();
  EXPECT_EQ(srv->last_check, 0.0);
  EXPECT_EQ(srv->crt_mtime, 0.0);
}

TEST_F(certificate_reload, library_that_cannot_load_chains_gets_the_first_certificate) {
  void* const library = std::exchange(openssl::_import.handle, dlopen("libm.so.6", RTLD_LAZY));
  EXPECT_FALSE(openssl::use_certificate_chain_file(srv->ctx, crt.c_str()));
  folder.write("crt.pem", pem + pem);
  const std::string error = openssl::_import.error;
  check();
  expect_load("");
  EXPECT_EQ(openssl::_import.error, error);
  dlclose(std::exchange(openssl::_import.handle, library));
}

/* The library can load chains here: the test program has the function. */
struct chain_reload : certificate_reload {
  chain_reload() {
    chain_calls.clear();
    chain_result = 1;
  }
  ~chain_reload() override { openssl::_import.handle = library_; }

  /* Writes so many certificates into the file, and lets the server look at it. */
  void renew(int certificates) {
    std::string text;
    for (int i = 0; i < certificates; i++) text += pem;
    folder.write("crt.pem", text);
    set_file_time(crt, ++file_time_);
    check_in(61);
  }

 private:
  int64_t file_time_ = old_time;
  void* const library_ =
      std::exchange(openssl::_import.handle, nullptr);  // now the whole process is searched
};

TEST_F(chain_reload, single_certificate_asks_for_no_chain) {
  renew(1);
  renew(1);
  EXPECT_EQ(chain_calls, std::vector<std::string>());
  EXPECT_FALSE(srv->has_chain);
}

TEST_F(chain_reload, single_certificate_after_a_chain_takes_the_chain_out_once) {
  renew(2);
  EXPECT_EQ(chain_calls, (std::vector<std::string>{crt}));
  EXPECT_TRUE(srv->has_chain);
  renew(1);
  EXPECT_EQ(chain_calls, (std::vector<std::string>{crt, crt}));
  EXPECT_FALSE(srv->has_chain);
  renew(1);
  EXPECT_EQ(chain_calls.size(), 2U);
}

TEST_F(chain_reload, chain_that_could_not_be_taken_out_is_tried_again_with_the_next_certificate) {
  renew(2);
  for (int failure : {0, -1}) {
    chain_result = failure;
    renew(1);
    EXPECT_TRUE(srv->has_chain) << failure;
  }
  chain_result = 1;
  renew(1);
  EXPECT_EQ(chain_calls, (std::vector<std::string>{crt, crt, crt, crt}));
  EXPECT_FALSE(srv->has_chain);
}

TEST_F(chain_reload, chain_that_could_not_be_loaded_counts_as_there) {
  chain_result = 0;
  renew(3);
  EXPECT_TRUE(srv->has_chain);
}
