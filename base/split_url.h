/* split_url: an absolute URL cut into scheme, host, port and path.
 *
 * Parsing never fails: a missing part gets a default. A slash directly after the scheme's "://" belongs to
 * the host. User information, fragments and bracketed addresses are not handled. The query stays in the
 * path. */
#pragma once

#include <cstdint>
#include <string>

struct split_url {
  std::string scheme;  // "http" unless the URL says otherwise; "https" for one that begins with "//"
  std::string host;    // in ASCII form
  int32_t port = 0;    // the number in the URL, unchecked, or the scheme's default: 80, 443 or 21
  std::string path;    // always begins with "/"

  explicit split_url(const std::string& url);

  /* Returns `host` with each label that is not plain ASCII replaced by "xn--" and its Punycode (RFC 3492). A
   * label is cut at its first zero byte. Labels are not normalised or case-folded; empty labels stay. */
  static std::string utf8_to_idn(const std::string& host);
};
