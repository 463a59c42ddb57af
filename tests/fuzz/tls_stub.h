/* tls_stub: replaces OpenSSL by sessions that encrypt nothing but have the states of OpenSSL's sessions.
 *
 * The first byte from the client is the handshake. The bytes after it come unchanged, in records of at most
 * 16 KiB. A session reads a whole record from the socket, even if fewer bytes are asked for. Two bytes are
 * signals and are not passed on:
 *
 * - tls_stub::stall makes the session ask to wait a few times, as if it had to write before it can read.
 *
 * - tls_stub::alert ends the session: from then on it moves nothing and does not ask the system. */
#pragma once

namespace tls_stub {

constexpr char stall = 0x16;
constexpr char alert = 0x15;

/* Fills the table of OpenSSL's entry points. */
void install();

/* The only context. */
void* context();

}  // namespace tls_stub
