/* host_name: what a name must look like to be worth looking up. */
#pragma once

#include <string>

namespace base {

/* Whether `host`, in ASCII form, can be the name or the IPv4 address of a host: labels of 1 to 63 bytes
 * between dots, at most 253 bytes in all, made of letters, digits, "-" and "_" (which no host name may have
 * by RFC 1123 but some have). A dot at the end, which says that the name is complete, does not count. */
bool is_host_name(const std::string& host);

}  // namespace base
