/* import: a shared library that is opened at run time. A missing library is no failure until it is used.
 *
 * The file is found in the dynamic linker's cache by the beginning of its name: "libssl.so" finds
 * "libssl.so.3". Owns the library's handle.
 *
 * From C++20 on, a line that begins with this class's name, followed by another name, imports a module. Write
 * `struct import` or `::import` there. */
#pragma once

#include <string>

/* Appends to `out` every run of more than 4 printable ASCII bytes in the file, one a line. A run that reaches
 * the end of the file is left out. Returns false, and leaves `out` as it was, when the file cannot be
 * read. */
bool get_strings(const std::string& path, std::string& out);

/* Returns the file name to open for the library `name`. It searches the paths in the linker's cache for a "/"
 * with `name` directly after it, and returns the first such path from `name` on. If there is no such path,
 * returns `name` itself. Prints a message on standard error when there is no cache. The text of the cache is
 * kept until the process ends. */
std::string _import_probe(const std::string& name);

struct import {
  void* handle;       // null when the library could not be opened
  std::string error;  // why the library did not open, or which symbols are missing so far, one a line

  /* Opens the library. Prints a message on standard error when it cannot. */
  explicit import(const std::string& name);
  import(const import&) = delete;
  import& operator=(const import&) = delete;
  ~import();

  /* Returns the address of `symbol`. When the symbol is missing, adds its name to `error`, at every call, and
   * returns `fallback`. Without a handle, the whole process is searched. */
  void* proc(const std::string& symbol, void* fallback);
};
