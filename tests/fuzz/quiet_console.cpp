// Linked to every fuzzer. The output of the code under test is thrown away. libFuzzer itself writes to
// standard error.

#include <cstdio>

namespace {

const bool is_quiet = freopen("/dev/null", "w", stdout) != nullptr;

}  // namespace
