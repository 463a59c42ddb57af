/* fault_run: a conversation during which one function of the system fails, and a conversation after it.
 *
 *     run_for_every_use<plain_stage>({"recv", ECONNRESET, harm::one_client}, 1);
 *                                          one run in which the first use fails, one in which the
 *                                          second fails, and so on to the last
 *
 *     run_with<plain_stage>(failure, 3, 2) the third and the fourth use fail; false when there were not so
 *                                          many */
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
  one_client,     // at most one
  everybody,      // the server drops its connections and listens again
  start_or_one,   // the first failure prevents the start, a later one harms one client at most
  the_whole_run,  // whoever runs the loop gets the exception; everything is released then
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

/* The result of a fault that stands for a missing entry point. */
constexpr int is_missing = -1000;

/* One run in which `times` uses fail, from number `first` on. False when there were not so many uses. */
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
    // Without both of its options, a socket cannot share the port with the one that reserves it.
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
  EXPECT_EQ(afterwards.harmed(), "") << "after the failure";
  here.stop();
  EXPECT_EQ(here.connections(), 0);
  return has_failed;
}

/* One run for the first use, one for the second, and so on, until there is no such use. */
template <class Stage>
void run_for_every_use(const failure& f, int times) {
  int first = 1;
  while (!testing::Test::HasFailure() && run_with<Stage>(f, first, times)) first++;
  testing::Test::RecordProperty("runs", first);
  EXPECT_GT(first, 1) << "the conversation never calls it";
}
