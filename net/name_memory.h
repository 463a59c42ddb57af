/* name_memory: what the resolver has answered within this second of the clock.
 *
 * A look-up of "localhost" reads several files, a tenth of what a relayed connection costs in all, and a busy
 * proxy repeats it for every connection. A second is short enough that nobody waits for a changed address,
 * and keeps the memory small without counting. Failures are not remembered.
 *
 * Owns the lists that it hands out. */
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
  int64_t second_ = 0;                         // when all of them were looked up

  void forget();
};
