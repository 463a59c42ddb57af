/* import: a shared library that is opened at run time, and whose absence is no failure until it is used.
 *
 * The file is found by its name in the dynamic linker's cache, versions and all: "libssl.so" finds
 * "libssl.so.3". Owns the library's handle.
 *
 * From C++20 on, a line that begins with this class's name and goes on with another name imports a module.
 * Write `struct import` or `::import` there. */
#pragma once

#include <string>

/* Appends to `out` every run of more than 4 printable ASCII bytes in the file, one a line. A run that
 * reaches the end of the file is not counted. False, with `out` as it was, when the file cannot be read. */
bool get_strings(const std::string& path, std::string& out);

/* The file name to open for the library `name`: the last component of the first path in the linker's cache
 * that has one beginning with `name`, or `name` itself. Says so on standard error when there is no cache.
 * What was read of the cache is kept for the process. */
std::string _import_probe(const std::string& name);

struct import {
  void* handle;       // null when the library could not be opened
  std::string error;  // why, or which symbols are missing so far, one a line

  /* Opens the library; says so on standard error when it cannot. */
  explicit import(const std::string& name);
  import(const import&) = delete;
  import& operator=(const import&) = delete;
  ~import();

  /* The address of `symbol`; when it is missing, its name is added to `error`, each time, and `fallback`
   * returned. Without a handle the whole process is searched. */
  void* proc(const std::string& symbol, void* fallback);
};
