/* host_name: what a name must look like to be worth looking up. */
#pragma once

#include <string>

namespace base {

/* Whether `host`, in ASCII form, can be the name or the IPv4 address of a host: labels of 1 to 63 bytes with
 * dots between them, at most 253 bytes in all. A label consists of letters, digits, "-" and "_"; RFC 1123
 * forbids "_" in a host name, but some names have it. A dot at the end marks a complete name and does not
 * count. */
bool is_host_name(const std::string& host);

}  // namespace base
