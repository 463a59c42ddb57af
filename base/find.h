/* The wildcard search that header look-up is defined by, and the comparison that stands in for it where a
 * name has no wildcards. */
#pragma once

#include <cstddef>
#include <string>

namespace base {

/* Whether A to Z compare equal to a to z in find(). One flag for the process, true at start. */
bool& find_case_insensitive();

/* The position of the first match of `pattern` in `text`, and in `end` the position behind it; npos, with
 * `end` untouched, when there is none. "?" matches any one byte and "*" any run of bytes, the shortest that
 * lets the rest match. Costs O(text * pattern) at worst without a star, O(text * text * pattern) with one. */
size_t find(const std::string& text, const std::string& pattern, size_t& end);

/* Whether `len` bytes at `a` and at `b` are equal, with A to Z equal to a to z, in any locale. */
bool is_equal_folded(const char* a, const char* b, size_t len);

}  // namespace base
