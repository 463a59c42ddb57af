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
  int result = -1;  // returned by a failing use, unless that returns a pointer, which is null then
  int gap = 0;      // if not 0, so many uses succeed behind each failure, and it fails again, for ever
};

/* The fault of each function: "socket", "bind", "listen", "accept4", "connect", "select", "recv", "send",
 * "close", "fcntl", "setsockopt", "getsockopt", "getaddrinfo", "getnameinfo", "getifaddrs", "stat", "fopen",
 * "mmap" (which returns MAP_FAILED), "madvise", "munmap", and any name that a test gives to fails(). A
 * close() that fails has closed, as on Linux. */
std::map<std::string, fault>& of();

/* Counts a use of the function `name`. True when it is to fail: errno is set then, and `result` is what the
 * function is to return. */
bool fails(const char* name, int& result);

/* The next look-up of a name fails with `code`, one of getaddrinfo()'s. It happens in a second of the clock
 * of its own, long ago: what another test looked up in this second would be remembered, and nobody asked. */
void fail_next_look_up(int code);

/* While this is true, calls are neither counted nor failed nor limited in their bytes: those that a test
 * makes in the role of a peer. The clock, the addresses and the limit on waits hold on. */
bool& suspended();

/* How often each of those functions was called since clear(). */
std::map<std::string, int>& calls();

/* recv() and send() move at most this many bytes a call; 0: no limit. */
size_t& most_bytes();

/* select() waits no longer than this, in microseconds; 0: as long as it is told to. */
int64_t& longest_wait_us();

/* Added to what time() returns, in seconds. */
int64_t& clock_offset();

/* While this is not 0, time() stands still at it, in seconds since the epoch; clock_offset() still counts. */
int64_t& frozen_clock();

/* The size of a page of the system that is pretended, a multiple of the real one; 0: the real one. sysconf()
 * gives it, mmap() and munmap() take whole pages of it, and neither munmap() nor madvise() takes a place that
 * is not the beginning of one. */
size_t& page_size();

/* What getaddrinfo() finds instead of asking the resolver, on the port and of the family that it is asked
 * for, and the adapters that getifaddrs() lists. Texts of IPv4 or IPv6 addresses; "" stands for an address of
 * a family that is neither, and for an adapter without an address. Empty: the real answer. */
std::vector<std::string>& resolved();
std::vector<std::string>& adapters();

/* The local port that connect() gives the sockets that it connects, on 127.0.0.1; 0: one that the system
 * chooses. */
int& outgoing_port();

/* The node that getaddrinfo() was asked for last; empty for the wildcard. */
std::string& last_node();

/* The last call of select(): its first argument, and its time-out in microseconds. */
struct select_call {
  int count = 0;
  int64_t wait_us = 0;
};
select_call& last_select();

/* No faults, counts from zero, the real clock, the real addresses. */
void clear();

}  // namespace faults
