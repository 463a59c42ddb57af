/* body_end: what the head of a request says about the end of its body (RFC 9112, section 6.3), beyond its
 * Content-Length.
 *
 * The head is the request line and the header lines, each ended by CR LF. Two readers of one connection must
 * never disagree about the end of a body. So a head that another reader could understand differently gives
 * `unknown`: then everything that follows on the connection is body. The rules:
 *
 * (1) Without a Transfer-Encoding line the body ends by its Content-Length. Names that only begin with
 *     "transfer-encoding", and values that contain it, do not count.
 *
 * (2) A Transfer-Encoding line is the name, in any letter case, at the beginning of a line, and a ":"
 *     directly after it. It counts whatever the other lines say, even a Content-Length (section 6.3, item 3).
 *
 * (3) All such lines together, in their order, are one list (RFC 9110, section 5.3). If the last coding in
 *     this list is "chunked", in any letter case, the body ends by its last chunk.
 *
 * (4) `unknown`, when chunked is not the last coding, or is there twice (section 6.1). Also when an element
 *     of the list is empty, or is more than a token: the chunked coding has no parameters (section 7.1), and
 *     no other registered coding has any.
 *
 * (5) `unknown`, when something other than ":" ends the name, for example a blank (section 5.1). Also when
 *     bytes that cannot be part of a name, such as blanks or control characters, stand between the beginning
 *     of the line and the name. A line also begins after a bare CR or a bare LF here, because some readers
 *     take these for the end of a line (section 2.2).
 *
 * (6) `unknown`, when there is a Transfer-Encoding line and any line of the head is continued on the next one
 *     (section 5.2), or holds a bare CR or LF. Other lines count, too, because of lines that are not passed
 *     on: the continuation of such a line becomes part of the line before it.
 *
 * (7) `unknown`, when there is a Transfer-Encoding line and the request line is not three words with single
 *     blanks, of which the last is "HTTP/1.1": HTTP/1.0 has no transfer codings (section 6.1). Also when the
 *     method is CONNECT, which has no body (RFC 9110, section 9.3.6). */
#pragma once

#include <string>

enum class body_end {
  by_length,      // after as many bytes as the Content-Length says
  by_last_chunk,  // see chunked_body
  unknown         // only when the connection ends
};

/* Reads the head of a request. Allocates nothing. In a head without Transfer-Encoding it looks at about one
 * byte in eight. */
body_end find_body_end(const std::string& head);
