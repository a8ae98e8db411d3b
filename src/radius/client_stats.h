// Delivery counters: the RADIUS client's figures of RFC 4670 for each
// server, counted on the line where each thing happens and read by
// `meterctl stats`. They change nothing on the wire and write no message.
//
// A server is an address and a port. It gets a row of a fixed table with its
// first transmission; servers beyond the table, and every sender of a
// datagram that is no server of ours, share the table's last row, "other".
// Nothing is allocated. Everything expects `mutex` held.
#ifndef METERD_RADIUS_CLIENT_STATS_H
#define METERD_RADIUS_CLIENT_STATS_H

#include <netinet/in.h>
#include <sys/types.h>
#include <cstddef>
#include <cstdint>

#include "database/accounting.h"
#include "radius/radius_msg.h"

enum {
    CLIENT_STATS_SERVERS = 32,    // rows of their own; one more is "other"
    CLIENT_STATS_TEXT = 12288,    // room for the report of a full table
};

struct client_stats_row {
    struct in_addr addr;  // INADDR_ANY and port 0 for "other"
    uint16_t port;        // host order
    uint32_t requests;         // first transmissions of a packet to this server
    uint32_t retransmissions;  // later transmissions of the same packet to it
    uint32_t responses;        // every datagram received from it
    uint32_t malformed;        // ... of which too short for their header or their Length
    uint32_t bad_authenticators;  // ... of which refused by their Response Authenticator
    uint32_t unknown_types;       // ... of which taken as answers with a Code other than 5
    uint32_t dropped;             // ... of which dropped for another reason
    uint32_t pending;    // requests waiting for their answer now (a gauge)
    uint32_t timeouts;   // transmissions whose deadline passed without an answer
    uint32_t round_trip_ms;  // from the last transmission to the answer, of the last answer
};

// A datagram as it came in, for the counters: its sender and its size.
struct radius_datagram {
    int source;  // the socket it came on (radius_source_open)
    struct sockaddr_in from;
    ssize_t length;  // -1: no datagram, the read failed
};

// self's packet left for `to`: a request, or a retransmission when this very
// packet last went to the same server. A new packet (accounting_msg) has
// gone nowhere yet: self->sent_to 0.
void client_stats_sent(struct user_accounting_info *self, const struct sockaddr_in *to);
// The deadline of self's last transmission passed without an answer.
void client_stats_timeout(const struct user_accounting_info *self);
// A datagram (nullptr: one of unknown origin, not counted) that was refused
// for `reason` (one of the three fields named below), or counted as
// malformed instead when it is: its bytes, nullptr for a datagram the
// receive refused before reading them.
enum { STATS_MALFORMED, STATS_BAD_AUTHENTICATOR, STATS_DROPPED, STATS_UNKNOWN_TYPE, STATS_ANSWER };
void client_stats_refused(const struct radius_datagram *d, const AUTH_HDR *response, int reason);
// A datagram that was taken as the answer to self's packet.
void client_stats_answered(const struct radius_datagram *d, const AUTH_HDR *response,
                           const struct user_accounting_info *self);

// A datagram that met a probe of a dead server: its answer (STATS_ANSWER),
// or refused as STATS_BAD_AUTHENTICATOR or STATS_UNKNOWN_TYPE.
void client_stats_probe(const struct radius_datagram *d, const AUTH_HDR *response, int outcome);

// The row of a server (port in host order), pending counted now; 0, or -1
// when it has none.
int client_stats_of(struct in_addr addr, uint16_t port, struct client_stats_row *out);
// The report for meterctl, lines of text: "server ADDRESS PORT" with each
// figure and its value, a row a line, "other" for the last row. Cut to size (NUL-terminated);
// returns its length.
size_t client_stats_report(char *out, size_t size);
// Appends printf-style to out[*n...] of a report, cut to size; out stays
// NUL-terminated and *n its length.
void report_put(char *out, size_t size, size_t *n, const char *fmt, ...) __attribute__((format(printf, 4, 5)));

// Forgets every row (tests).
void client_stats_clear(void);

#endif
