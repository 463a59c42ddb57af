// Faulty tests for test_harness.py: each does what a test must never do. They only run when test_harness.py
// asks.

#include <gtest/gtest.h>

#include <cstdlib>

namespace {

char* made_for_nobody() {
  return new char[4711];
}

}  // namespace

TEST(faulty, DISABLED_leaks) {
  char* volatile made = made_for_nobody();
  EXPECT_NE(made, nullptr);
  made = nullptr;
}

TEST(faulty, DISABLED_crashes) {
  abort();
}

TEST(faulty, DISABLED_skips) {
  GTEST_SKIP() << "the moon is full";
}
