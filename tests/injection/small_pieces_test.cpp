// Bytes that come and go in small pieces, and calls that are often interrupted.

#include <cerrno>

#include "tests/injection/fault_run.h"

namespace {

/* Expects that every client gets everything, with the faults that `set_up` sets. */
template <class Stage, class SetUp>
void expect_service(size_t size, SetUp set_up) {
  descriptor_check descriptors;
  console screen;
  Stage here;
  ASSERT_TRUE(here.start());
  set_up();
  conversation during(here, size);
  during.play();
  EXPECT_EQ(during.harmed(), "");
  here.stop();
}

// A server makes progress only if two uses in a row succeed, for two reasons. First, an interrupted wait
// forgets which sockets have output. The turn of the next wait announces the output again, and the turn of
// the wait after that sends it. Second, a TLS session that has read nothing counts as dead only after its
// socket has been checked and the session has been asked again.
void fail_every_third(const char* call, int error) {
  faults::of()[call] = {0, 1, error, -1, 2};
}

template <class Stage>
struct small_pieces : testing::Test {};

using stages = testing::Types<plain_stage, tls_stage>;
TYPED_TEST_SUITE(small_pieces, stages, );

}  // namespace

TYPED_TEST(small_pieces, nothing_fails) {
  expect_service<TypeParam>(conversation::usual_size, [] {});
  expect_service<TypeParam>(3000000, [] {});
}

TYPED_TEST(small_pieces, every_call_moves_one_byte) {
  expect_service<TypeParam>(1000, [] { faults::most_bytes() = 1; });
}

TYPED_TEST(small_pieces, every_call_moves_a_few_bytes) {
  for (size_t most : {2U, 3U, 7U, 100U, 1447U}) {
    expect_service<TypeParam>(5000, [=] { faults::most_bytes() = most; });
  }
}

TYPED_TEST(small_pieces, every_third_wait_is_interrupted) {
  expect_service<TypeParam>(conversation::usual_size, [] { fail_every_third("select", EINTR); });
}

TYPED_TEST(small_pieces, every_third_write_is_refused) {
  for (int error : {EAGAIN, EINTR})
    expect_service<TypeParam>(conversation::usual_size, [=] { fail_every_third("send", error); });
}

TYPED_TEST(small_pieces, one_byte_a_call_and_interruptions_everywhere) {
  expect_service<TypeParam>(300, [] {
    faults::most_bytes() = 1;
    for (const char* call : {"select", "recv", "send", "close"}) fail_every_third(call, EINTR);
  });
}

TYPED_TEST(small_pieces, one_byte_a_call_and_eagain_every_third_time) {
  expect_service<TypeParam>(300, [] {
    faults::most_bytes() = 1;
    for (const char* call : {"recv", "send"}) fail_every_third(call, EAGAIN);
  });
}
