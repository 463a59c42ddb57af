/* Text codecs: bytes in, text out; and what is done to texts in several places. Free functions without state;
 * strings are bytes. */
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace base {

/* `x` as text: all digits ("%.0f") when it has no fractional part, six significant ones ("%g") otherwise. The
 * odd values are "-0", "inf", "-inf", "nan" and "-nan". */
std::string num(double x);

/* The decimal number that `text` begins with, behind blanks and a sign, as strtol() reads it and cut to its
 * low 32 bits; 0 when there is none. */
int32_t parse_int(const char* text);

/* Empties `s` for the next text. It keeps its memory, unless that is more than 64 KiB: one long request is
 * not to keep it for the life of a connection. */
void empty_for_reuse(std::string& s);

/* Appends an IPv4 address, given in network order, to `text` as a dotted quad. */
void append_dotted_quad(std::string& text, uint32_t ip);

/* Base64 with the standard alphabet and padding, without line breaks (RFC 4648, section 4).
 * Lengths are signed 32-bit numbers: from 2 GiB to 4 GiB the text is empty. */
std::string base64(const std::string& bytes);

/* The SHA-1 digest as 20 raw bytes (FIPS 180-4, section 6.1). Only the low 32 bits of the message's length
 * in bits are hashed, so the digest is standard for messages below 512 MiB. */
std::string sha1(const std::string& bytes);

/* `s` made fit to stand between double quotes, without the quotes.
 * json true: bytes outside printable ASCII are decoded as UTF-8 and written as \uXXXX, in surrogate pairs
 * where needed (RFC 8259, section 7); an invalid byte becomes \uffff. json false: they become \xHH.
 * A zero byte is written as \0 in both forms, which no JSON parser takes. */
std::string escape(const std::string& s, bool json);

/* What utf8_decode returns for a byte that starts no valid sequence. */
constexpr uint32_t invalid_code_point = 0xFFFFFFFF;

/* Decodes the code point at s[pos] (pos < s.size()) and moves `pos` behind its bytes (RFC 3629, section 3).
 * Overlong forms and encoded surrogates are invalid; four-byte values above U+10FFFF are let through.
 * An invalid byte is consumed alone and gives invalid_code_point. */
uint32_t utf8_decode(const std::string& s, size_t& pos);

}  // namespace base
