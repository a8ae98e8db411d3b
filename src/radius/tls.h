// The TLS library behind a small interface of ours: a context made once
// from the -T file, and connections over TCP sockets that the caller has
// connected and will close. Every call of the library stands in one file
// (tls_openssl.cc, built with -DMETERD_TLS=ON), so that another library is
// one more file of the same functions.
//
// The server's certificate must chain to ca_file and name server_name, or,
// without one, the address the caller connected to. Our certificate and
// key go to the server, which may refuse them. Nothing here logs; the
// reasons it gives name certificates and alerts, never keys, secrets or
// what the connection carried.
#ifndef METERD_RADIUS_TLS_H
#define METERD_RADIUS_TLS_H

#include <cstddef>
#include <cstdint>

#include "radius/tls_config.h"

struct tls_context;
struct tls_conn;

enum tls_result {
    TLS_OK = 0,
    TLS_WANT_READ,      // call again once the socket is readable
    TLS_WANT_WRITE,     // call again once the socket is writable
    TLS_CLOSED,         // the server ended the connection (close_notify or TCP)
    TLS_CERT_REFUSED,   // the server's certificate failed our check: CA, name or dates
    // The server refused us: with an alert, or by hanging up after it asked
    // for our certificate and before it answered anything. FreeRADIUS 3.2
    // refuses a certificate so, its alert never sent, and with TLS 1.3 only
    // once our side of the handshake is done: at the first write or read.
    // A server that drops the connection before its first answer for any
    // other reason looks the same from here.
    TLS_PEER_REFUSED,
    TLS_TIMEOUT,        // the handshake did not finish in time
    TLS_FAILED,         // anything else: not TLS at all, a protocol error, no memory
};

// Loads the CA, our certificate and key: the context, or NULL with one line
// in error. For start-up, before any thread.
struct tls_context *tls_context_new(const struct tls_config *cfg, char *error, size_t error_size);
void tls_context_free(struct tls_context *ctx);

// A connection over fd, connected to `address` (dotted, as the profile names
// the server). fd is made non-blocking and stays the caller's to close,
// after tls_conn_free. NULL when memory is exhausted.
struct tls_conn *tls_conn_new(struct tls_context *ctx, int fd, const char *address);
// Sends close_notify if the connection is up (once, without waiting) and frees.
void tls_conn_free(struct tls_conn *c);

// Drives the handshake. timeout_ms 0: one step, TLS_WANT_READ or _WRITE
// while it is under way; above 0: waits on the socket until it is done or
// the time is out (TLS_TIMEOUT).
enum tls_result tls_handshake(struct tls_conn *c, int timeout_ms);

// Sends the whole packet in one record of its own: FreeRADIUS closes a
// connection on which two packets share a record or one spans two.
// TLS_WANT_WRITE: call again with the same bytes once writable. n <= 4096.
enum tls_result tls_write_packet(struct tls_conn *c, const uint8_t *pkt, size_t n);

// Reads what has arrived, up to size bytes, into buf: TLS_OK with *got > 0,
// TLS_WANT_READ when nothing is there, or how the connection ended. Call
// again until TLS_WANT_READ before waiting on the socket: the library may
// hold decrypted bytes that the socket no longer shows.
enum tls_result tls_read(struct tls_conn *c, uint8_t *buf, size_t size, size_t *got);

// The negotiated protocol ("TLSv1.3") and cipher, "" before the handshake.
const char *tls_conn_version(const struct tls_conn *c);
const char *tls_conn_cipher(const struct tls_conn *c);
// Why the last call failed, one short phrase ("certificate has expired",
// "hostname mismatch", "alert certificate required"); "" if it did not.
const char *tls_conn_reason(const struct tls_conn *c);

// A word for a result, for log lines and the counters.
const char *tls_result_name(enum tls_result r);

#endif
