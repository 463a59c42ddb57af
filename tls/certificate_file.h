/* What the TLS server wants to know about its certificate file. Nothing is kept between calls. */
#pragma once

#include <string>

/* The modification time of the file at `path` in whole seconds since the epoch; 0 when there is none, or no
 * memory to look for it. The path is put right by clean_path() first. */
double certificate_file_time(const std::string& path) noexcept;

/* `path` with backslashes as slashes, and without doubled slashes, "/./" and a slash at the end. Two dots
 * and a leading "./" stay. */
std::string clean_path(const std::string& path);

/* How many PEM certificates (RFC 7468) the file holds; 0 when it cannot be read. */
int count_certificates(const std::string& path);
