/* split_url: an absolute URL cut into scheme, host, port and path.
 *
 * Parsing never fails: what is not there gets a default. A slash right behind the scheme belongs to the host.
 * There is no handling of user information, fragments or bracketed addresses, and the query stays in the
 * path. */
#pragma once

#include <cstdint>
#include <string>

struct split_url {
  std::string scheme;  // "http" unless the URL says otherwise; "https" for one that begins with "//"
  std::string host;    // in ASCII form
  int32_t port = 0;    // any number that the URL names, or the scheme's own: 80, 443 or 21
  std::string path;    // always begins with "/"

  explicit split_url(const std::string& url);

  /* `host` with every label that is not plain ASCII as "xn--" and its Punycode (RFC 3492). Labels are not
   * normalised or case-folded; empty ones stay. */
  static std::string utf8_to_idn(const std::string& host);
};
