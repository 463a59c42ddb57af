/* faults: calls into the system that fail, or lie, when a test says so.
 *
 * The test programs define the functions named here themselves; each passes on to the real one unless its
 * fault is set. Faults hold until they are used up or clear() is called. */
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace faults {

struct fault {
  int skip = 0;     // uses that still succeed
  int times = 0;    // uses that then fail
  int error = 0;    // errno of the failure
  int result = -1;  // returned by a failing use
};

/* The fault of each function: "socket", "bind", "listen", "accept4", "connect", "select", "recv", "send",
 * "getaddrinfo", "getifaddrs". */
std::map<std::string, fault>& of();

/* How often each of those functions was called since clear(). */
std::map<std::string, int>& calls();

/* recv() and send() move at most this many bytes a call; 0: no limit. */
size_t& most_bytes();

/* Added to what time() returns, in seconds. */
int64_t& clock_offset();

/* While this is not 0, time() stands still at it, in seconds since the epoch; clock_offset() still counts. */
int64_t& frozen_clock();

/* What getaddrinfo() finds instead of asking the resolver, on the port that it is asked for, and the adapters
 * that getifaddrs() lists. Texts of IPv4 or IPv6 addresses; "" stands for an address of a family that is
 * neither, and for an adapter without an address. Empty: the real answer. */
std::vector<std::string>& resolved();
std::vector<std::string>& adapters();

/* The last call of select(): its first argument, and its time-out in microseconds. */
struct select_call {
  int count = 0;
  int64_t wait_us = 0;
};
select_call& last_select();

/* No faults, counts from zero, the real clock, the real addresses. */
void clear();

}  // namespace faults
