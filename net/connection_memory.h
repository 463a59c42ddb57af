/* connection_memory: the memory of the connection objects. They lie in rows of eight, with less than two
 * cache lines between them, on pages mapped from the system.
 *
 * A fresh page is zero and costs nothing until it is touched. So an object of over 1 MiB costs only the page
 * or two that a small exchange uses: its last fields share a page with the first fields of the next object.
 * With fresh memory, calloc would do as well. But calloc clears memory that was used before: a MiB for each
 * connection. Here, when an object ends and its output buffer was hardly used, only the bytes written are
 * cleared. Otherwise the pages of the output buffer return to the system. Some free slots wait for the next
 * connections, which saves the page faults that dominate the cost of short connections.
 *
 * What a connection with one request would cost in other designs, as a multiple of its processor time now (ab
 * with 64 at once, release build, a busy virtual machine with two cores, medians of the ratios of 9 to 15
 * rounds in which the two builds ran alternately):
 *
 *   - 1.09: rows of one object instead of eight
 *   - 1.15: no waiting slots
 *   - 1.06: 64 waiting slots instead of 128, because 64 relayed clients are 128 objects
 *   - 1.02 (1.06 with one client at a time): output buffers whose pages always return to the system
 *
 * An idle client takes 5.0 KiB of resident memory (RSS). With its object on pages of its own it took 8.0 KiB
 * (bench/run, "idle client").
 *
 * A slot is free or taken: take() hands a slot over to the caller, who gives it back with give_back(). A row
 * is memory for eight objects of one size; its slots wait for objects of that size only.
 *
 * Between calls: (1) bit i of a row's `free_slots` is set exactly when slot i of this row is free; (2)
 * `spare` is the number of free slots in all rows; (3) a free slot is zero in all of its `size` bytes; (4)
 * taken slots do not overlap, and nothing here writes to them; (5) when the last object of a row is given
 * back, the row is unmapped, if at least `most_spare` free slots remain in the other rows and the system can
 * unmap it.
 *
 * When memory is refused: take() returns null and changes nothing, if the list of rows cannot grow or the
 * system maps no more pages. give_back() needs no memory. Pages that the system does not take back are
 * cleared in place. A row that the system does not unmap stays for the next objects of its size. */
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

  /* The memory of all connections. It is never destroyed, because some connections end only while the process
   * ends. */
  static connection_memory& shared();

  /* Hands over `size` bytes, all zero and aligned to a cache line. `size` is at least that of a connection.
   * Null when the memory is refused. */
  void* take(size_t size) noexcept;

  /* Takes back memory from take(). The object in it must not have written more of its output buffer than the
   * first `filled` bytes. */
  void give_back(void* object, size_t filled = connection::out_capacity) noexcept;

 private:
  struct row {
    char* base;
    size_t length;        // bytes mapped
    size_t size;          // of its objects
    unsigned free_slots;  // one bit for each slot

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
