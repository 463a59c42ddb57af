/* The wildcard search that header look-up is defined by, and two searches that stand in for it where there
 * are no wildcards. No client can make those two slow with a text of its choice: they look at sixteen bytes
 * at a time, and hardly longer at places that almost match. In 100 MiB of CR a name is missed after 20 ms,
 * and was after 900 with std::string::find (Xeon, g++ -O2). */
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace base {

/* Whether A to Z compare equal to a to z in find(). One flag for the process, true at start. */
bool& find_case_insensitive();

/* The position of the first match of `pattern` in `text`, and in `end` the position behind it; npos, with
 * `end` untouched, when there is none. "?" matches any one byte and "*" any run of bytes, the shortest that
 * lets the rest match. Costs O(text * pattern) at worst without a star, O(text * text * pattern) with one. */
size_t find(const std::string& text, const std::string& pattern, size_t& end);

/* Whether the bytes at `a`, as many as `b` has, are equal to `b`, with A to Z equal to a to z, in any locale.
 */
bool is_equal_folded(const char* a, std::string_view b);

/* The position of the first CRLF at `from` or later; npos when there is none. */
size_t find_line_end(std::string_view text, size_t from = 0);

/* The position of the first CRLF at `from` or later that `name` follows, with A to Z equal to a to z in any
 * locale; npos when there is none. "\r\n" as the name finds an empty line. An empty name stands behind every
 * CRLF. */
size_t find_line(std::string_view text, std::string_view name, size_t from = 0);

}  // namespace base
