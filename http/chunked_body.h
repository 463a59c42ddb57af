/* chunked_body: finds the end of a request's body that comes in chunks (RFC 9112, section 7.1).
 *
 * Reads along with bytes that go elsewhere, and keeps none of them. The body may be cut anywhere.
 *
 * Two readers of one connection must never disagree about the end of a body: what follows it is a request to
 * the one and a body to the other. So whatever the grammar does not allow makes the body malformed, even
 * where many servers are lenient. A malformed body has no end: every further byte belongs to it. The rules:
 *
 * (1) A size is one or more hexadecimal digits, in either letter case, below 2^63. Leading zeros are allowed.
 *     No sign, no "0x", no blank before it. A larger size overflows in some readers (section 7.1).
 *
 * (2) Blanks after the size are allowed only in front of a ";", where the grammar has them (section 7.1.1).
 *
 * (3) An extension, from its ";" to the end of the line, is not looked at, but no control character other
 *     than a tab is allowed in it (section 7.1.1).
 *
 * (4) A line ends with CR LF. A bare CR or LF ends no line and is allowed nowhere but in a chunk (section
 *     2.2).
 *
 * (5) After the bytes of a chunk comes CR LF and nothing else (section 7.1).
 *
 * (6) A chunk of size 0 is the last. Trailer lines follow, then an empty line, which ends the body. A trailer
 *     line is a token, directly followed by ":", and text under rule 3. It is not continued on the next line
 *     (sections 5.1, 5.2 and 7.1.2).
 *
 * (7) A line of a size or a trailer has at most 8,192 bytes in front of its CR LF: some readers cut longer
 *     ones in two. There may be any number of trailer lines. */
#pragma once

#include <cstddef>
#include <cstdint>

class chunked_body {
 public:
  /* Reads the next bytes. Returns how many of them belong to the body: all, unless its end is among them. */
  size_t parse(const char* data, size_t len);

  /* Whether the body is complete. No further byte belongs to it. */
  bool has_ended() const { return place_ == places::ended; }

  /* Whether a rule was broken. Every further byte belongs to the body. */
  bool is_malformed() const { return place_ == places::malformed; }

 private:
  /* What the next byte is to be. The places in the line of a size come first. */
  enum class places {
    size_begin,     // the first digit of a size
    size,           // another digit, or the end of the size
    blanks,         // a blank between the size and the ";" of an extension
    extension,      // a byte of it, or its end
    size_lf,        // the LF of a size's line
    chunk,          // a byte of a chunk, `left_` of which are to come
    chunk_cr,       // the CR and
    chunk_lf,       // the LF after a chunk
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
  uint64_t left_ = 0;        // the size so far; in a chunk, what is still to come of it; 0 after it

  places next(char c);
  places next_in_line(char c);
  places next_of_size(char c);
  places add_digit(char c);
  places after_size_line(char c) const;
  places next_of_trailer(char c) const;
};
