// Linked to every fuzzer: what the code under test prints goes nowhere. libFuzzer itself writes to standard
// error.

#include <cstdio>

namespace {

const bool is_quiet = freopen("/dev/null", "w", stdout) != nullptr;

}  // namespace
