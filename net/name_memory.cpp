#include "net/name_memory.h"

#include <sys/socket.h>

#include <ctime>

const addrinfo* name_memory::find(const std::string& host, int port, int& code) {
  const int64_t now = time(nullptr);
  if (now != second_) forget();
  second_ = now;
  if (!lists_) lists_ = new base::hashmap<addrinfo*>;  // deleted by forget()

  code = 0;
  const std::string service = std::to_string(port);
  const std::string key = host + ":" + service;  // a port has no colon, so the last colon separates them
  addrinfo* list = lists_->get(key);
  if (list) return list;
  addrinfo hints = {};
  hints.ai_socktype = SOCK_STREAM;
  code = getaddrinfo(host.c_str(), service.c_str(), &hints, &list);
  if (code != 0) return nullptr;
  try {
    if (list) lists_->set(key, list);
  } catch (...) {  // no memory for the key
    freeaddrinfo(list);
    throw;
  }
  return list;
}

void name_memory::forget() {
  if (!lists_) return;
  for (uint32_t i = 0; i < lists_->count; i++) freeaddrinfo(lists_->get(*lists_->keys[i]));
  delete lists_;
  lists_ = nullptr;
}
