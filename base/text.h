/* Text codecs, which turn bytes into text, and small operations on texts that several places need. The
 * functions have no state; strings are bytes. */
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace base {

/* `x` as text: all digits ("%.0f") when it has no fractional part, six significant ones ("%g") otherwise. The
 * special values are "-0", "inf", "-inf", "nan" and "-nan". */
std::string num(double x);

/* The decimal number at the start of `text`, where blanks and a sign may precede it. It is read by strtol()
 * and cut to its low 32 bits; 0 when there is none. */
int32_t parse_int(const char* text);

/* Empties `s` for the next text. `s` keeps its memory, unless that is more than 64 KiB: one long request must
 * not occupy so much memory for the life of a connection. */
void empty_for_reuse(std::string& s);

/* Appends an IPv4 address, given in network order, to `text` as a dotted quad. */
void append_dotted_quad(std::string& text, uint32_t ip);

/* Base64 with the standard alphabet and padding, without line breaks (RFC 4648, section 4). The length is
 * taken as a signed 32-bit number, so 2 GiB to 4 GiB of bytes give an empty text. */
std::string base64(const std::string& bytes);

/* The SHA-1 digest as 20 raw bytes (FIPS 180-4, section 6.1). Only the low 32 bits of the message's length
 * in bits are hashed, so the digest is standard for messages below 512 MiB. */
std::string sha1(const std::string& bytes);

/* `s`, escaped so that it can stand between double quotes; the quotes are not added. If `json` is true, bytes
 * outside printable ASCII are decoded as UTF-8 and written as \uXXXX, in surrogate pairs where needed (RFC
 * 8259, section 7); an invalid byte becomes \uffff. If `json` is false, each such byte becomes \xHH. In both
 * forms a zero byte becomes \0, which JSON parsers reject. */
std::string escape(const std::string& s, bool json);

/* What utf8_decode returns for a byte that starts no valid sequence. */
constexpr uint32_t invalid_code_point = 0xFFFFFFFF;

/* Decodes the code point at s[pos] (pos < s.size()) and moves `pos` to the first byte after it (RFC 3629,
 * section 3). Overlong forms and encoded surrogates are invalid; four-byte values above U+10FFFF are
 * accepted. For an invalid byte, the result is invalid_code_point and `pos` moves by one byte. */
uint32_t utf8_decode(const std::string& s, size_t& pos);

}  // namespace base
