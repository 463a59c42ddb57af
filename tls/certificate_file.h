/* What the TLS server wants to know about its certificate file. Nothing is kept between calls. */
#pragma once

#include <string>

/* The modification time of the file at `path` in whole seconds since the epoch; 0 when there is no such file,
 * or no memory to look for it. clean_path() is applied to the path first. */
double certificate_file_time(const std::string& path) noexcept;

/* `path` with slashes in place of backslashes, and without doubled slashes, without "/./" and without a slash
 * at the end. ".." and a leading "./" stay. */
std::string clean_path(const std::string& path);

/* How many PEM certificates (RFC 7468) the file holds; 0 when it cannot be read. */
int count_certificates(const std::string& path);
