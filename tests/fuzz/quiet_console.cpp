// Linked to every fuzzer: throws the output of the code under test away. libFuzzer writes to standard error.

#include <cstdio>

namespace {

const bool is_quiet = freopen("/dev/null", "w", stdout) != nullptr;

}  // namespace
