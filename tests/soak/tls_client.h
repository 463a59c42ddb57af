/* tls_client: OpenSSL for the soak's clients. It is opened at run time, as mivo opens it, so building the
 * soak needs no more than building mivo does.
 *
 * A session works on a non-blocking socket that the caller owns. Certificates are not verified, because the
 * soak only compares bytes. */
#pragma once

#include <cstddef>
#include <cstdint>

namespace tls_client {

/* Returns false if OpenSSL is missing. Call the functions below only after this one has returned true. */
bool open_library();

/* Returns a new session on a connecting socket, or null if there is no memory. */
void* new_session(int sock);

void free_session(void* session);

/* The result of a call that moved no bytes, in place of a number of bytes. */
enum : int64_t {
  wants_input = -1,   // call again when the socket is readable
  broken = -2,        // do not call again
  wants_output = -3,  // call again when the socket is writable
};

/* Writes `len` bytes or the first part of them. After wants_input or wants_output, the next call has to give
 * the same bytes again, and not fewer. */
int64_t write(void* session, const char* data, size_t len);

/* Reads up to `len` bytes. Returns their number, or 0 at the end. */
int64_t read(void* session, char* data, size_t len);

}  // namespace tls_client
