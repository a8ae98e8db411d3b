// meterd -l: the look-ups of an Interim-Update (the station's address and
// its byte counters) run by a few workers without `mutex`, so that a slow
// or hung device holds up that one session and nothing else.
//
// Ownership. A node whose Interim-Update falls due leaves its interim queue
// for lookup_header, a queue like the others, linked through node->queue.
// The node stays the database's: whatever may remove or free a node on any
// queue (a Stop that replaces its transaction, a profile's removal, `exit`)
// does the same here, and tells no worker. A worker owns only what it copied
// under `mutex` when it took the node: its address, the generation that
// lookups_begin gave it, and its MAC as text. It never follows that address
// unless, holding `mutex` again, it finds the node still on lookup_header,
// marked as its own, with the same generation; a node freed meanwhile is
// thus never touched, and one made anew at the same address has another
// generation. A node that is gone, moved or replaced is let be, as the
// design lets be a session that is gone when its time comes: its look-up
// ends in the count of sessions gone, and sends nothing.
//
// One session never has two look-ups at once: a node is on lookup_header
// once at most, and a worker does not take a node that another worker's
// look-up is still running for.
//
// Everything here expects `mutex` held, but lookups_start and
// lookups_start_helpers (before the threads, or in tests) and lookup_run
// (which runs without it).
#ifndef METERD_DELIVERY_LOOKUPS_H
#define METERD_DELIVERY_LOOKUPS_H

#include <cstddef>

#include "database/accounting.h"

// Workers, and so look-ups at once (measured in meterd(8)): an ovat that
// mostly waits for the device is looked up 8 times as fast by 8 workers as
// by one, and one that only takes CPU is no slower for them; beyond 8 the
// device would run that many ovat processes at once.
#define LOOKUP_WORKERS 8

// Interim-Updates waiting for their look-ups, the oldest first.
extern struct list_head lookup_header;

// Starts the workers (each with a helper for the statistics database, whose
// calls cannot be interrupted). Once, before the other threads; 0, or -1
// when a thread could not be made.
int lookups_start(void);
// The helpers alone, for tests that take a worker's steps themselves.
int lookups_start_helpers(void);

// node's Interim-Update, its status and event time set, waits on
// lookup_header for a worker; the worker then sends it as resend would
// (send_request), with what it found stored in the session.
void lookups_begin(struct accounting_node *node);

// A worker's turn in its three steps, which tests also take one by one.
struct lookup_job {
    struct accounting_node *node;  // not owned: compared, followed only once found again
    uint32_t gen;
    int worker;                    // its index, < LOOKUP_WORKERS
    char mac[18];                  // the session's user_mac
    // The outcome.
    int found;                     // the address was found (ip), as whal_getip's result
    struct in_addr ip;
    bool counted;                  // the counters were read in time (counters, maybe zeros)
    conn_t counters;
    bool timed_out;
    bool killed;
};
// Takes the oldest waiting node whose session no worker is looking up, and
// marks it the worker's. false when there is none.
bool lookup_take(struct lookup_job *job, int worker);
// The look-ups themselves, without `mutex` and touching no daemon state:
// the counters by the worker's helper (at once when no helper runs: tests),
// the address meanwhile, both within STATION_LOOKUP_TIMEOUT_MS.
void lookup_run(struct lookup_job *job);
// Stores the outcome in the session and sends its Interim-Update, if the
// node is still the one taken; counts the look-up either way.
void lookup_finish(struct lookup_job *job);

// The address of a Start on a login, asked with `mutex` held: ovat without
// a shell, within the time-out; as whal_getip, and counted.
int lookups_address_now(const char *mac, struct in_addr *ip);

struct lookups_counts {
    unsigned long started;    // look-ups begun by a worker
    unsigned long timed_out;  // ... of which the address, the counters or both took too long, and
                              // login Starts whose address took too long (lookups_address_now)
    unsigned long killed;     // ovat children killed (a time-out, or output past its limit), both kinds
    unsigned long gone;       // ... whose session was gone, moved or replaced at the end
    unsigned long pending;    // nodes on lookup_header now, waiting or being looked up
};
void lookups_counts_of(struct lookups_counts *out);

// The line of `meterctl stats`: "lookups" with name and value pairs. Cut to
// size; returns its length.
size_t lookups_report(char *out, size_t size);

#endif
