// The one place where a packet's Identifier is chosen. The design takes
// request_id as it comes, wrapping at 256 whatever is in flight; with unique
// Identifiers it is the first from there that no request in flight, no
// probe and no resting Identifier holds on the socket it leaves from, so
// that an answer can only meet its own request and a server never takes a
// new request for a duplicate. A server tells duplicates by source port too,
// so each further socket is 256 more requests in flight.
//
// Everything expects `mutex` held.
#ifndef METERD_DELIVERY_IDENTIFIERS_H
#define METERD_DELIVERY_IDENTIFIERS_H

#include <cstdint>

#include "database/accounting.h"

extern uint8_t request_id;

// The Identifier of a new packet and the socket it leaves from (*source,
// 0 but with unique Identifiers), or -1 while every one is held.
int identifier_take(unsigned char *source);

// Unique Identifiers: a request left its queue without its answer (given
// up, replaced, or its profile removed). A late answer to it must not meet
// a later request that took the same Identifier with the same bytes, so
// the Identifier rests for two time-outs before it is taken again.
void identifier_rest(const struct user_accounting_info *self);

// A packet that no request holds (a connection's watchdog) took Identifier
// id of socket source: it rests as a request's would, for two time-outs.
void identifier_hold(int source, uint8_t id);

// The second at which the first resting Identifier wakes, or 0.
time_t identifier_next_wake(void);

// Forgets every resting Identifier (tests).
void identifiers_clear(void);

#endif
