// The plain server. Each function of the system that can fail does so at each of its uses.

#include <netdb.h>

#include <cerrno>

#include "tests/injection/fault_run.h"

namespace {

#define FAILURE(call, error, effect) \
  failure {                          \
    call, error, effect, -1, #error  \
  }
#define RESOLVER_FAILURE(call, code, effect) \
  failure {                                  \
    call, EIO, effect, code, #code           \
  }

struct plain_faults : testing::TestWithParam<failure> {};

const failure failures[] = {
    FAILURE("socket", EMFILE, harm::start_or_one),
    FAILURE("socket", ENFILE, harm::start_or_one),
    FAILURE("socket", ENOBUFS, harm::start_or_one),
    FAILURE("socket", EACCES, harm::start_or_one),
    FAILURE("bind", EADDRINUSE, harm::start_or_one),
    FAILURE("bind", EACCES, harm::start_or_one),
    FAILURE("listen", EADDRINUSE, harm::start_or_one),
    RESOLVER_FAILURE("getaddrinfo", EAI_AGAIN, harm::start_or_one),
    RESOLVER_FAILURE("getaddrinfo", EAI_FAIL, harm::start_or_one),
    RESOLVER_FAILURE("getaddrinfo", EAI_MEMORY, harm::start_or_one),
    RESOLVER_FAILURE("getaddrinfo", EAI_NONAME, harm::start_or_one),
    RESOLVER_FAILURE("getaddrinfo", EAI_SYSTEM, harm::start_or_one),
    RESOLVER_FAILURE("getnameinfo", EAI_MEMORY, harm::nobody),
    FAILURE("getifaddrs", ENOMEM, harm::nobody),
    FAILURE("fcntl", EPERM, harm::nobody),
    FAILURE("setsockopt", ENOPROTOOPT, harm::nobody),
    FAILURE("setsockopt", ENOBUFS, harm::nobody),
    FAILURE("getsockopt", ENOBUFS, harm::one_client),
    FAILURE("connect", EADDRNOTAVAIL, harm::one_client),
    FAILURE("connect", EAGAIN, harm::one_client),
    FAILURE("connect", ECONNREFUSED, harm::one_client),
    FAILURE("connect", EINTR, harm::one_client),
    FAILURE("connect", ENETUNREACH, harm::one_client),
    FAILURE("connect", EPERM, harm::one_client),
    FAILURE("connect", ETIMEDOUT, harm::one_client),
    FAILURE("accept4", EAGAIN, harm::everybody),
    FAILURE("accept4", ECONNABORTED, harm::everybody),
    FAILURE("accept4", EINTR, harm::everybody),
    FAILURE("accept4", EMFILE, harm::everybody),
    FAILURE("accept4", ENFILE, harm::everybody),
    FAILURE("accept4", ENOBUFS, harm::everybody),
    FAILURE("accept4", EPROTO, harm::everybody),
    FAILURE("select", EBADF, harm::everybody),
    FAILURE("select", EINTR, harm::nobody),
    FAILURE("select", EINVAL, harm::everybody),
    FAILURE("select", ENOMEM, harm::everybody),
    // Both are tried again in the next turn, whatever the error.
    FAILURE("recv", EAGAIN, harm::nobody),
    FAILURE("recv", ECONNRESET, harm::nobody),
    FAILURE("recv", EINTR, harm::nobody),
    FAILURE("recv", ENOMEM, harm::nobody),
    FAILURE("send", EAGAIN, harm::nobody),
    FAILURE("send", ECONNRESET, harm::nobody),
    FAILURE("send", EINTR, harm::nobody),
    FAILURE("send", ENOBUFS, harm::nobody),
    FAILURE("send", EPIPE, harm::nobody),
    FAILURE("close", EINTR, harm::nobody),
    FAILURE("close", EIO, harm::nobody),
};

}  // namespace

TEST_P(plain_faults, failure_at_any_use_harms_no_more_than_it_must) {
  run_for_every_use<plain_stage>(GetParam(), 1);
}

TEST_P(plain_faults, failures_in_a_row_from_any_use_on_are_survived) {
  run_for_every_use<plain_stage>(GetParam(), 5);
}

INSTANTIATE_TEST_SUITE_P(, plain_faults, testing::ValuesIn(failures), test_name);
