/* connection_memory: where connection objects stand, in rows of eight, back to back, on pages mapped from the
 * system.
 *
 * A fresh page is zero and costs nothing until it is touched, so an object of over 1 MiB costs the page or
 * two that a small exchange uses: its last fields share a page with the first ones of the next object. malloc
 * would do for fresh memory, but calloc writes zeros over memory that it has had back, a MiB for each
 * connection. Here the end of an object clears what was written when that was little, and otherwise returns
 * the pages of its output buffer to the system. Some free slots wait for the next connections, which saves
 * the page faults that dominate the cost of short ones.
 *
 * Processor time of a connection with one request (ab with 64 at once, release build, a busy virtual machine
 * with two cores, medians of the ratios of 9 to 15 rounds in turns): rows of one object instead of eight cost
 * 1.09 of this; no slots that wait, 1.15; 64 of them instead of 128, 1.06, because 64 relayed clients are 128
 * objects; output buffers whose pages always go back to the system, 1.02, and 1.06 with one client after the
 * other. An idle client takes 5.0 KiB of resident memory (RSS); with its object on pages of its own it took
 * 8.0 (bench/run, "idle client").
 *
 * A slot is free or taken: take() hands it over to the caller, who gives it back by give_back(). A row is
 * memory for eight objects of one size; its slots wait for objects of that size only.
 *
 * Between calls: (1) bit i of `free_slots` of a row is set exactly when its slot i is free; (2) `spare` is
 * the number of free slots in all rows; (3) a free slot is zero in all of its `size` bytes; (4) taken slots
 * do not overlap, and nothing here writes to them; (5) a give_back() that leaves its row without an object
 * unmaps the row, if `most_spare` free slots remain without it and the system lets go of it.
 *
 * Refused memory: take() returns null when the list of rows cannot grow or the system maps no more pages, and
 * everything is as before. give_back() needs none. Where the system does not take pages back, they are
 * cleared in place; a row that it does not unmap stays for the next objects of its size. */
#pragma once

#include <cstddef>
#include <vector>

#include "net/connection.h"

class connection_memory {
 public:
  static constexpr unsigned slots = 8;         // of a row
  static constexpr unsigned most_spare = 128;  // slots; see rule 5

  /* Asks the system for the size of its pages. */
  connection_memory();
  connection_memory(const connection_memory&) = delete;
  connection_memory& operator=(const connection_memory&) = delete;

  /* Unmaps all rows. Every object must have ended. */
  ~connection_memory();

  /* The memory of all connections. It is never destroyed: connections end until the process does. */
  static connection_memory& shared();

  /* Hands over `size` bytes, all zero and as aligned as a cache line; at least a connection's size. Null when
   * the memory is refused. */
  void* take(size_t size) noexcept;

  /* Takes back what take() has handed over. Of the output buffer of the object that was there, only the first
   * `filled` bytes may have been written. */
  void give_back(void* object, size_t filled = connection::out_capacity) noexcept;

 private:
  struct row {
    char* base;
    size_t length;        // bytes mapped
    size_t size;          // of its objects
    unsigned free_slots;  // a bit for each

    char* at(unsigned slot) const;
    unsigned slot_of(const char* object) const;
    bool holds(const char* object) const { return object >= base && object < base + length; }
  };

  size_t page_;
  std::vector<row> rows_;
  unsigned spare_ = 0;

  row* find_row(size_t size);
  row* add_row(size_t size);
  void wipe(char* object, size_t size, size_t filled) const;
  bool unmap(row& r);
  size_t whole_pages(size_t bytes) const { return (bytes + page_ - 1) / page_ * page_; }
  char* page_of(char* place) const;
};
