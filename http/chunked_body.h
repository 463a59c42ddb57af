/* chunked_body: finds the end of a request's body that comes in chunks (RFC 9112, section 7.1).
 *
 * Reads the bytes on their way to somewhere else, and keeps none of them. The body may be cut anywhere.
 *
 * Two readers of one connection must never disagree about the end of a body: what one of them takes for the
 * rest of the body, the other would take for a request. So whatever the grammar does not allow makes the body
 * malformed, even where many servers are lenient. A malformed body has no end: every further byte belongs to
 * it. The rules:
 *
 * (1) A size is one or more hexadecimal digits, in either letter case, below 2^63. Leading zeros are allowed.
 *     No sign, no "0x", no blank before it. A larger size overflows in some readers (section 7.1).
 *
 * (2) Blanks after the size are allowed only before a ";", where the grammar has them (section 7.1.1).
 *
 * (3) An extension goes from its ";" to the end of the line. Its text means nothing here, but it must not
 *     contain a control character other than a tab (section 7.1.1).
 *
 * (4) A line ends with CR LF. A bare CR or LF does not end a line, and is allowed only in a chunk (section
 *     2.2).
 *
 * (5) After the bytes of a chunk, the next two bytes are CR LF (section 7.1).
 *
 * (6) A chunk of size 0 is the last. Trailer lines follow, then an empty line, which ends the body. A trailer
 *     line is a token, directly followed by ":", and then text under rule 3. It must not continue on the next
 *     line (sections 5.1, 5.2 and 7.1.2).
 *
 * (7) The line of a size or of a trailer has at most 8,192 bytes before its CR LF, because some readers cut
 *     longer lines in two. There may be any number of trailer lines. */
#pragma once

#include <cstddef>
#include <cstdint>

class chunked_body {
 public:
  /* Reads the next bytes. Returns how many of them belong to the body: all, unless the body ends in them. */
  size_t parse(const char* data, size_t len);

  /* Whether the body is complete. No further byte belongs to it. */
  bool has_ended() const { return place_ == places::ended; }

  /* Whether a rule was broken. Every further byte belongs to the body. */
  bool is_malformed() const { return place_ == places::malformed; }

 private:
  /* What the next byte should be. The places in the line of a size come first. */
  enum class places {
    size_begin,     // the first digit of a size
    size,           // another digit, or the end of the size
    blanks,         // a blank between the size and the ";" of an extension
    extension,      // a byte of the extension, or its end
    size_lf,        // the LF of a size's line
    chunk,          // a byte of a chunk; `left_` bytes of it are still to come
    chunk_cr,       // the CR after a chunk
    chunk_lf,       // the LF after that CR
    trailer_begin,  // the first byte of a trailer line, or the CR of the empty line
    trailer_name,   // a byte of the name, or its colon
    trailer_value,  // a byte of the value, or its end
    trailer_lf,     // the LF of a trailer line
    last_lf,        // the LF of the empty line
    ended,
    malformed
  };

  places place_ = places::size_begin;
  int32_t line_length_ = 0;  // bytes of the current line so far, without its end
  uint64_t left_ = 0;        // the size so far; in a chunk, the bytes still to come; 0 after the chunk

  places next(char c);
  places next_in_line(char c);
  places next_of_size(char c);
  places add_digit(char c);
  places after_size_line(char c) const;
  places next_of_trailer(char c) const;
};
