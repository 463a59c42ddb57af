/* new_faults: when `new` refuses memory, in a test program that has operator_new.h in one of its sources.
 *
 * Every allocation counts while `new_faults().is_counting` is set and faults are not suspended. */
#pragma once

#include "tests/support/faults.h"

struct new_fault_plan {
  bool is_counting = false;
  int calls = 0;    // while it was counting
  int granted = 0;  // calls that still succeed
  int refused = 0;  // calls that are then refused
};

inline new_fault_plan& new_faults() {
  static new_fault_plan plan;
  return plan;
}

/* Whether this allocation has to be refused. */
inline bool new_is_refused() {
  new_fault_plan& plan = new_faults();
  if (!plan.is_counting || faults::suspended()) return false;
  plan.calls++;
  if (plan.granted > 0) {
    plan.granted--;
    return false;
  }
  if (plan.refused == 0) return false;
  plan.refused--;
  return true;
}
