// The TLS server over a faked library. Each entry point and each call of the system fails at each use.

#include <cerrno>

#include "tests/injection/faulty_openssl.h"

namespace {

struct tls_faults : testing::TestWithParam<failure> {};
struct missing_entry_points : testing::TestWithParam<const char*> {};

// Before glibc 2.34 the modules that look up names open their files with this function, too. Then a failure
// is also that of a look-up.
#if __GLIBC_PREREQ(2, 34)
constexpr harm of_fopen = harm::nobody;
#else
constexpr harm of_fopen = harm::one_client;
#endif

const failure failures[] = {
    // Their results are ignored.
    {"OPENSSL_init_ssl", 0, harm::nobody, 0, "0"},
    {"SSL_CTX_use_PrivateKey_file", 0, harm::nobody, 0, "0"},
    {"SSL_CTX_use_certificate_file", 0, harm::nobody, 0, "0"},
    {"SSL_CTX_ctrl", 0, harm::nobody, 0, "0"},
    {"SSL_accept", EAGAIN, harm::nobody, -1, "EAGAIN"},
    {"SSL_accept", 0, harm::nobody, 0, "0"},
    {"SSL_shutdown", EPIPE, harm::nobody, -1, "EPIPE"},
    {"SSL_shutdown", 0, harm::nobody, 0, "0"},
    // Without a context every client is refused.
    {"TLS_server_method", 0, harm::nobody, 0, "null"},
    {"SSL_CTX_new", 0, harm::everybody, 0, "null"},
    {"SSL_new", 0, harm::one_client, 0, "null"},
    {"SSL_set_fd", 0, harm::one_client, 0, "0"},
    // A session that is alive is asked again. 0 means that the peer has ended it.
    {"SSL_read", EAGAIN, harm::nobody, -1, "EAGAIN"},
    {"SSL_read", 0, harm::one_client, 0, "0"},
    {"SSL_write", EAGAIN, harm::nobody, -1, "EAGAIN"},
    {"SSL_write", 0, harm::nobody, 0, "0"},
    {"stat", ENOENT, harm::nobody, -1, "ENOENT"},
    {"stat", EACCES, harm::nobody, -1, "EACCES"},
    {"fopen", EMFILE, of_fopen, 0, "EMFILE"},
    {"recv", EAGAIN, harm::nobody, -1, "EAGAIN"},
    {"recv", EINTR, harm::nobody, -1, "EINTR"},
    {"recv", ECONNRESET, harm::nobody, -1, "ECONNRESET"},
    {"send", EAGAIN, harm::nobody, -1, "EAGAIN"},
    {"send", EPIPE, harm::nobody, -1, "EPIPE"},
    {"select", EBADF, harm::everybody, -1, "EBADF"},
    {"select", EINTR, harm::nobody, -1, "EINTR"},
    {"accept4", EMFILE, harm::everybody, -1, "EMFILE"},
    {"socket", EMFILE, harm::start_or_one, -1, "EMFILE"},
    {"bind", EADDRINUSE, harm::start_or_one, -1, "EADDRINUSE"},
    {"listen", EADDRINUSE, harm::start_or_one, -1, "EADDRINUSE"},
    {"connect", ECONNREFUSED, harm::one_client, -1, "ECONNREFUSED"},
    {"close", EIO, harm::nobody, -1, "EIO"},
};

const char* const entry_points[] = {
    "OPENSSL_init_ssl",
    "TLS_server_method",
    "SSL_CTX_new",
    "SSL_CTX_use_PrivateKey_file",
    "SSL_CTX_use_certificate_file",
    "SSL_CTX_ctrl",
    "SSL_new",
    "SSL_set_fd",
    "SSL_accept",
    "SSL_read",
    "SSL_write",
    "SSL_shutdown",
    "SSL_free",
};

std::string entry_name(const testing::TestParamInfo<const char*>& entry) {
  return entry.param;
}

}  // namespace

TEST_P(tls_faults, failure_at_any_use_harms_no_more_than_it_must) {
  run_for_every_use<faulty_tls_stage>(GetParam(), 1);
}

TEST_P(tls_faults, failures_in_a_row_from_any_use_on_are_survived) {
  run_for_every_use<faulty_tls_stage>(GetParam(), 5);
}

TEST_P(missing_entry_points, text_is_thrown_to_the_caller_of_the_loop_and_everything_is_released) {
  run_for_every_use<faulty_tls_stage>({GetParam(), 0, harm::the_whole_run, is_missing}, 1);
}

INSTANTIATE_TEST_SUITE_P(, tls_faults, testing::ValuesIn(failures), test_name);
INSTANTIATE_TEST_SUITE_P(, missing_entry_points, testing::ValuesIn(entry_points), entry_name);
