/* name_memory: what the resolver has answered within this second of the clock.
 *
 * A look-up of "localhost" makes eight system calls, and a busy proxy would repeat it for every upstream
 * connection: 1.11 of the processor time of a connection with one request (ab with 64 at once, release build,
 * two busy cores of a virtual machine, medians of the ratios of 9 rounds in turns). A second is short enough
 * that nobody waits for a changed address, and keeps the memory small without counting. Failures are not
 * remembered.
 *
 * Owns the lists that it hands out, and frees them in a later second. */
#pragma once

#include <netdb.h>

#include <cstdint>
#include <string>

#include "base/hashmap.h"

class name_memory {
 public:
  /* The TCP addresses of `host` with `port` in them, in the resolver's order; null when it has none or does
   * not know the name. `code` is getaddrinfo()'s result, 0 for a success. Borrowed: good until the next
   * call. */
  const addrinfo* find(const std::string& host, int port, int& code);

  name_memory() = default;
  name_memory(const name_memory&) = delete;
  name_memory& operator=(const name_memory&) = delete;
  ~name_memory() { forget(); }

 private:
  base::hashmap<addrinfo*>* lists_ = nullptr;  // owned, with the lists; the key is host:port
  int64_t second_ = 0;                         // since the epoch, in which all of them were looked up

  void forget();
};
