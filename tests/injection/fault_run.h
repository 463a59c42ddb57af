/* fault_run: a conversation during which one call into the system fails, and one after it.
 *
 *     run_for_every_use<plain_stage>({"recv", ECONNRESET, harm::one_client}, 1);
 *                                          fails once, at its first use, then at its second, and so on to the
 * last run_with<plain_stage>(failure, 3, 2) fails at its third and fourth use; whether there were so many */
#pragma once

#include <gtest/gtest.h>

#include <new>
#include <ostream>
#include <string>

#include "tests/injection/conversation.h"
#include "tests/support/console.h"

/* Whom a failure may harm. */
enum class harm {
  nobody,
  one_client,     // at most
  everybody,      // the server drops its connections and listens again
  start_or_one,   // the first failure keeps the server from starting, a later one harms a client at most
  the_whole_run,  // the failure is thrown to whoever runs the loop; all is released then
};

/* A failure of one function. */
struct failure {
  const char* call;
  int error;
  harm effect;
  int result = -1;
  const char* name = "";  // of the error; gives the test its name
};

inline void PrintTo(const failure& f, std::ostream* out) {
  *out << f.call << " fails: " << f.name;
}

inline std::string test_name(const testing::TestParamInfo<failure>& info) {
  return std::string(info.param.call) + "_" + info.param.name;
}

/* What a fake makes of a failing call whose entry point is missing. */
constexpr int is_missing = -1000;

/* One run: the uses number `first` and behind, `times` of them, fail. False when there were not so many. */
template <class Stage>
bool run_with(const failure& f, int first, int times) {
  SCOPED_TRACE(std::string(f.call) + " fails from its use " + std::to_string(first) + " on, " +
               std::to_string(times) + " times");
  descriptor_check descriptors;
  console screen;
  Stage here;
  faults::fault& fault = faults::of()[f.call];
  fault = {first - 1, times, f.error, f.result};
  try {
    const bool has_started = here.start();
    // Without both of its options, a socket cannot be bound beside the one that keeps the port.
    const bool may_stay_down = f.effect == harm::start_or_one || times > 1;
    EXPECT_TRUE(has_started || (may_stay_down && fault.times < times)) << "it did not start";
    if (has_started) {
      conversation during(here);
      during.play();
      const int most_harmed = f.effect == harm::nobody ? 0 : 1;
      if (times == 1 && f.effect != harm::everybody) {
        EXPECT_LE(during.count_harmed(), most_harmed) << during.harmed();
      }
    } else {
      EXPECT_EQ(here.front().sock, -1);
    }
  } catch (const std::bad_alloc&) {
    EXPECT_EQ(f.effect, harm::the_whole_run);
    return true;
  } catch (const std::string&) {
    EXPECT_EQ(f.effect, harm::the_whole_run);
    return true;
  }
  const bool has_failed = fault.times < times;
  fault.times = 0;
  EXPECT_TRUE(here.is_serving() || here.start());
  conversation afterwards(here);
  afterwards.play();
  EXPECT_EQ(afterwards.harmed(), "") << "behind the failure";
  here.stop();
  EXPECT_EQ(here.connections(), 0);
  return has_failed;
}

/* Runs for the first use, the second, and so on, until there is no such use. */
template <class Stage>
void run_for_every_use(const failure& f, int times) {
  int first = 1;
  while (!testing::Test::HasFailure() && run_with<Stage>(f, first, times)) first++;
  testing::Test::RecordProperty("runs", first);
  EXPECT_GT(first, 1) << "the conversation never calls it";
}
