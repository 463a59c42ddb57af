/* tls_client: OpenSSL as the soak's clients need it. It is opened at run time, as mivo opens it, so building
 * the soak needs no more than building mivo does.
 *
 * A session works on a non-blocking socket that the caller owns. Certificates are not verified: the soak
 * looks at bytes. */
#pragma once

#include <cstddef>
#include <cstdint>

namespace tls_client {

/* False when there is no OpenSSL to be had. Everything below needs a true one. */
bool open_library();

/* A new session on a connecting socket; null when there is no memory. */
void* new_session(int sock);

void free_session(void* session);

/* What a call that moved nothing says, in the place of a number of bytes. */
enum : int64_t {
  wants_input = -1,   // again when the socket is readable
  broken = -2,        // never again
  wants_output = -3,  // again when the socket is writable
};

/* Writes `len` bytes or the first of them. After wants_input or wants_output, the next call is given the same
 * bytes again, and not fewer. */
int64_t write(void* session, const char* data, size_t len);

/* Reads up to `len` bytes: how many, or 0 at the end. */
int64_t read(void* session, char* data, size_t len);

}  // namespace tls_client
