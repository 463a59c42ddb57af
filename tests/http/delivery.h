/* delivery: the ways in which bytes reach a connection, and leave it.
 *
 * Input and output are in memory that ends at an unreadable page, and input is overwritten after the call.
 * This finds a connection that reads or writes too far, or keeps a pointer.
 *
 *     receive(c, "...");                   one chunk, as the server hands it over
 *     for (const chunks& all : every_delivery("...")) receive_all(c, all);
 *                                          the bytes whole, in two at every cut, and byte by byte
 *     send_once(c, cap)                    what one on_send() gives, and whether the connection stays
 *     send_everything(c)                   everything that is queued */
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "http/http_connection.h"

constexpr int megabyte = 1048576;  // the most that a server reads or writes in one call

using chunks = std::vector<std::string>;

/* The address of `len` bytes, at most a megabyte, that end at a page which can be neither read nor written.
 * The memory is the same each time. */
inline char* bytes_before_unreadable_page(size_t len) {
  static char* const end = [] {
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    void* base = mmap(nullptr, megabyte + page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    char* first_unreadable = static_cast<char*>(base) + megabyte;
    mprotect(first_unreadable, page, PROT_NONE);
    return first_unreadable;
  }();
  return end - len;
}

/* One chunk as the server would hand it over. */
inline void receive(http_connection& c, const std::string& chunk) {
  char* place = bytes_before_unreadable_page(chunk.size());
  memcpy(place, chunk.data(), chunk.size());
  c.on_recv(place, static_cast<int>(chunk.size()));
  memset(place, '#', chunk.size());
}

inline void receive_all(http_connection& c, const chunks& all) {
  for (const std::string& chunk : all) receive(c, chunk);
}

inline chunks byte_by_byte(const std::string& bytes) {
  chunks all;
  for (char byte : bytes) all.emplace_back(1, byte);
  return all;
}

/* Every delivery of `bytes` that a parser test runs: whole, in two at every cut, and byte by byte. */
inline std::vector<chunks> every_delivery(const std::string& bytes) {
  std::vector<chunks> all = {{bytes}, byte_by_byte(bytes)};
  for (size_t cut = 1; cut < bytes.size(); cut++) all.push_back({bytes.substr(0, cut), bytes.substr(cut)});
  return all;
}

/* What one on_send() gave. */
struct sending {
  bool stays;
  std::string bytes;
};

inline sending send_once(http_connection& c, int cap = megabyte) {
  char* buffer = bytes_before_unreadable_page(static_cast<size_t>(cap));
  int len = 0;
  bool stays = c.on_send(buffer, cap, &len);
  return {stays, std::string(buffer, static_cast<size_t>(len))};
}

/* Everything that is queued. Makes as many calls as necessary, but at most a thousand. */
inline std::string send_everything(http_connection& c) {
  std::string bytes;
  for (int i = 0; i < 1000 && c.response_parts.count > 0; i++) bytes += send_once(c).bytes;
  return bytes;
}
