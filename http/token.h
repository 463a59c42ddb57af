/* The names of HTTP are tokens (RFC 9110, section 5.6.2). */
#pragma once

#include <string_view>

/* Whether `c` may be part of a token: a letter, a digit, or one of 15 other characters. */
inline bool is_token_byte(char c) {
  if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) return true;
  return c != '\0' && std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
}
