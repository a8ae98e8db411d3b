// What meterd's options change beyond the design, read once at start-up into
// one policy. The owner of a request's life asks it at its few decision
// points (an answer, a time-out, a reading of counters, the choice of a
// server and of an Identifier); without options every answer is the
// design's, so the default path reads as the design does.
//
// Everything expects `mutex` held, but policy_choose (before any thread).
#ifndef METERD_DELIVERY_POLICY_H
#define METERD_DELIVERY_POLICY_H

#include <cstdint>

#include "database/accounting.h"

// meterd's option letters beyond the design, one bit each.
enum {
    EXT_GIGAWORDS = 1 << 0,          // -g: Acct-Input/Output-Gigawords beside the octets
    EXT_UNIQUE_IDS = 1 << 1,         // -i: no Identifier that a request in flight holds
    EXT_RETRY_PER_REQUEST = 1 << 2,  // -r: an answer renews the retry budget
    EXT_STEADY_COUNTERS = 1 << 3,    // -c: counters that survive failed look-ups and resets
    EXT_KEEP_RECORDS = 1 << 4,       // -k: dead servers probed, failback, nothing given up, event times
    EXT_LOOKUPS = 1 << 5,            // -l: an Interim-Update's look-ups by workers, outside the lock, bounded
    EXT_ALL = (1 << 6) - 1,          // -x
};

struct delivery_policy {
    unsigned options;  // EXT_* as chosen, for the report
    // The statistics database's counter texts as numbers: the design reads
    // an int; Gigawords and steady counters need all 64 bits.
    uint64_t (*read_counter)(const char *text);
    // A reading of the session's counters, from the Interim-Update's look-up
    // (looked_up) or from the driver: what the session then stores. true if
    // the reading was taken.
    bool (*take_counters)(struct user_accounting_info *self, const conn_t *seen, bool looked_up);
    // A failed address look-up leaves 0.0.0.0 (the design), or keeps what
    // the session knew.
    bool keep_address;
    // An Interim-Update's look-ups run in workers without `mutex`, without
    // a shell and within a time-out (lookups.h); what they find is the
    // session's until the next.
    bool lookups;
    // An answer gives the session's next request a whole budget again,
    // starting at the first server the profile can use.
    bool budget_per_request;
    // No two requests in flight share an Identifier (identifiers.h).
    bool unique_ids;
    // Servers that do not answer are dead until a probe finds them again;
    // no request is given up; event times kept (servers.h).
    bool keep_records;
};

extern const struct delivery_policy *policy;

// Chooses the policy of these options (EXT_*) and tells the RADIUS client
// what it composes. Once, before any thread; tests call it again.
void policy_choose(unsigned options);

// The names of the options on, for `meterctl stats`: "extensions" and each
// name with 0 or 1. Cut to size; returns its length.
size_t policy_report(char *out, size_t size);

#endif
