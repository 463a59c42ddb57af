/* name_memory: what the resolver has answered in the current second of the clock.
 *
 * A look-up of "localhost" makes eight system calls, and a busy proxy would repeat it for every upstream
 * connection. A connection with one request would take 1.11 times the processor time (ab with 64 at once,
 * release build, two busy cores of a virtual machine, medians of the ratios of 9 rounds in which the two
 * builds ran alternately). No answer is used for longer than a second. So nobody waits long for a changed
 * address, and the memory stays small without a limit. Failures are not remembered.
 *
 * Owns the lists that find() returns, and frees them in a later second. */
#pragma once

#include <netdb.h>

#include <cstdint>
#include <string>

#include "base/hashmap.h"

class name_memory {
 public:
  /* The TCP addresses of `host` with `port` in them, in the resolver's order; null when the resolver has none
   * or does not know the name. `code` is the result of getaddrinfo(), 0 for success. The list is borrowed and
   * valid until the next call. */
  const addrinfo* find(const std::string& host, int port, int& code);

  name_memory() = default;
  name_memory(const name_memory&) = delete;
  name_memory& operator=(const name_memory&) = delete;
  ~name_memory() { forget(); }

 private:
  base::hashmap<addrinfo*>* lists_ = nullptr;  // owned, with the lists; the key is host:port
  int64_t second_ = 0;                         // since the epoch; all lists were looked up in this second

  void forget();
};
