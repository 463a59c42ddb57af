/* tls_stub: in the place of OpenSSL, sessions that encrypt nothing and yet are in states as OpenSSL's are.
 *
 * The first byte from the client is the handshake. After it, bytes come as they are, in records of at most 16
 * KiB that are read from the socket before they are asked for. Two bytes are signals and are not passed on:
 * tls_stub::stall has the session ask to wait a few times, as one does that has to write before it can read;
 * tls_stub::alert ends it: from then on it moves nothing and does not ask the system. */
#pragma once

namespace tls_stub {

constexpr char stall = 0x16;
constexpr char alert = 0x15;

/* Fills the table of OpenSSL's entry points. */
void install();

/* Stands for every context. */
void* context();

}  // namespace tls_stub
