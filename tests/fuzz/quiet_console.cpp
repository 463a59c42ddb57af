// Linked to every fuzzer: drops the output of the code under test. libFuzzer writes to standard error.

#include <cstdio>

namespace {

const bool is_quiet = freopen("/dev/null", "w", stdout) != nullptr;

}  // namespace
