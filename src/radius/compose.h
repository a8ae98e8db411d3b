// Composition of Accounting-Requests: which attributes a packet carries, in
// which order and from which field of the node, then the signature. Runs
// with `mutex` held by the caller of send_accounting, which guards the node
// and its profile.
#ifndef METERD_RADIUS_COMPOSE_H
#define METERD_RADIUS_COMPOSE_H

#include <cstdint>

#include "database/accounting.h"
#include "radius/radius_msg.h"

extern unsigned short local_port;

// What the owner asks beyond the design's attributes; all false by default.
struct compose_rules {
    bool gigawords;    // Acct-Input/Output-Gigawords beside the octets
    bool event_times;  // Event-Timestamp and the session's time from the node's
                       // event_time, and Acct-Delay-Time in every packet
    bool fitted;       // a stored request takes its length, not a whole buffer
};
// Once at start-up (tests again); the rules are copied.
void compose_configure(const struct compose_rules *rules);

typedef struct termination_cause_s {
    int uam_event;
    int acct_termination_cause;
    const char *reason;
} termination_cause_t;

// Acct-Terminate-Cause of each uam_logout_cause, searched first row first.
enum { TERMINATION_CAUSE_COUNT = 7 };
extern const termination_cause_t termination_cause_array[TERMINATION_CAUSE_COUNT];

// Builds and signs a new request for node and status into node->self->request,
// asking the registered client (radius_client_register) for its Identifier
// and for what only the device knows. 0, or -1 when no memory could be had,
// or 1 when the owner had no Identifier to give (unique Identifiers); the
// node then holds no request.
int accounting_msg(struct accounting_node *node, int status);
// Appends the measured attributes of a session's packet. Always 0.
int accounting_report_sta(struct accounting_node *node, int status, AUTH_HDR *request);
// Acct-Terminate-Cause for a logout cause, or 0 (reason untouched).
int get_termination_cause(int uam_logout_cause, const char **reason);

#endif
