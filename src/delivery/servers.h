// meterd -k: which servers of a profile answer. A server that lets a
// request's whole budget pass unanswered is dead for its profile: new
// requests go to a live server of the profile at once, or wait on the
// backlog while none is live. A dead server is probed with Status-Server
// (RFC 5997) until an answer, to a probe or to any request, makes it live
// again; one that ignores Status-Server is probed by a request instead. The
// design never calls any of this: its server state stays all zero.
//
// Everything expects `mutex` held.
#ifndef METERD_DELIVERY_SERVERS_H
#define METERD_DELIVERY_SERVERS_H

#include <cstddef>
#include <ctime>

#include "database/accounting.h"
#include "radius/client_stats.h"

enum {
    PROBE_FIRST = 10,           // seconds from a server's death to its first probe
    PROBE_CAP = 30,             // the interval doubles from there up to this
    PROBES_BEFORE_REQUEST = 3,  // unanswered Status-Servers before a request probes
    PACE = 32,                  // requests in flight per server while a backlog drains
};

// Nodes whose profile has no live server (or whose live server has PACE
// requests in flight while older ones wait), oldest first; they hold no
// packet, so that a backlog costs no more than its sessions.
extern struct list_head backlog_header;

// The first server of the profile that may take a new request: the primary
// if it is there (and, with -k, live), else the backup; SERVER_NONE when
// neither may.
unsigned char servers_first(const struct accounting_radius *radius);

// Chooses the server of node's next request and gives it a whole budget:
// 1 when one may take it now, 0 when node must wait on the backlog. A dead
// server whose turn it is to be probed by a request takes it (self->probing).
int servers_route(struct accounting_node *node);

// The server of node's request let its whole budget pass: it is dead from
// now on, if it was not already, unless it answered anything meanwhile (on
// a lossy path one request may be unlucky where its server is not): 1 if
// it is dead.
int servers_dead(radius_server *server, const struct user_accounting_info *self);
// An answer from server: it is live.
void servers_live(radius_server *server);

// Sends the probes that are due at `now`. Returns the second of the next
// one, or 0 when no server is dead.
time_t servers_probe(time_t now);
// 1 if response (from d, nullptr for an unknown sender) answered a probe:
// counted, and when it is verified the server is live again (*revived set);
// else 0.
int servers_probe_answer(AUTH_HDR *response, const struct radius_datagram *d, bool *revived);

// For meterctl stats: a line per server of every profile ("state ...") and
// one for the backlog. Cut to size; returns its length.
size_t servers_report(char *out, size_t size);

#endif
