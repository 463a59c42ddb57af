/* faults: calls into the system that fail, or give false results, when a test says so.
 *
 * A test program defines the functions named here itself. Each of them calls the real function, unless its
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
  int gap = 0;      // if not 0: this many uses succeed after each failure, then one fails again
};

/* The fault of each function: "socket", "bind", "listen", "accept4", "connect", "select", "recv", "send",
 * "close", "fcntl", "setsockopt", "getsockopt", "getaddrinfo", "getnameinfo", "getifaddrs", "stat", "fopen",
 * "mmap" (which returns MAP_FAILED), "madvise", "munmap", and any name that a test gives to fails(). A
 * close() that fails has closed the descriptor, as on Linux. */
std::map<std::string, fault>& of();

/* Counts a use of the function `name`. True when it has to fail: then errno is set, and `result` is what the
 * function has to return. */
bool fails(const char* name, int& result);

/* The next look-up of a name fails with `code`, an error of getaddrinfo(). The clock is set to a second in
 * the past that no other test uses. In a second that another test has used, the name could be remembered, and
 * the resolver would not be asked. */
void fail_next_look_up(int code);

/* While this is true, calls are not counted, do not fail, and have no limit on their bytes. A test sets it
 * for its calls in the role of a peer. The clock, the addresses and the limit on waits still hold. */
bool& suspended();

/* How often each of those functions was called since clear(). */
std::map<std::string, int>& calls();

/* recv() and send() move at most this many bytes in a call; 0: no limit. */
size_t& most_bytes();

/* select() waits no longer than this, in microseconds; 0: as long as it is told to. */
int64_t& longest_wait_us();

/* Added to what time() returns, in seconds. */
int64_t& clock_offset();

/* If not 0, time() always gives this, in seconds since the epoch, plus clock_offset(). */
int64_t& frozen_clock();

/* The size of the pretended system's pages, a multiple of the real size; 0: the real size. sysconf() gives
 * it, mmap() and munmap() take whole pages of it, and munmap() and madvise() refuse a place at which no such
 * page begins. */
size_t& page_size();

/* resolved() replaces the resolver: getaddrinfo() finds these addresses, with the port and of the family that
 * it is asked for. adapters() are those that getifaddrs() lists. Both are texts of IPv4 or IPv6 addresses. ""
 * stands for an address of another family, or for an adapter without an address. Empty: the real result. */
std::vector<std::string>& resolved();
std::vector<std::string>& adapters();

/* The local port, on 127.0.0.1, of the sockets that connect() connects; 0: the system chooses one. */
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
