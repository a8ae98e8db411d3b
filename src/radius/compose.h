// Composition of Accounting-Requests: which attributes a packet carries, in
// which order and from which field of the node, then the signature. Runs
// with `mutex` held by the caller of send_accounting, which guards
// request_id, the node and its profile.
#ifndef METERD_RADIUS_COMPOSE_H
#define METERD_RADIUS_COMPOSE_H

#include <cstdint>

#include "database/accounting.h"
#include "radius/radius_msg.h"

extern uint8_t request_id;
extern unsigned short local_port;

typedef struct termination_cause_s {
    int uam_event;
    int acct_termination_cause;
    const char *reason;
} termination_cause_t;

// Acct-Terminate-Cause of each uam_logout_cause, searched first row first.
enum { TERMINATION_CAUSE_COUNT = 7 };
extern const termination_cause_t termination_cause_array[TERMINATION_CAUSE_COUNT];

// Builds and signs a new request for node and status into node->self->request,
// asking the registered client (radius_client_register) for what only the
// device knows. 0, or -1 when no memory could be had (the node then holds no
// request). With unique Identifiers, 1 when every Identifier is held: the
// request is stored unnumbered and unsigned, for accounting_msg_number.
int accounting_msg(struct accounting_node *node, int status);
// Numbers and signs an unnumbered request: 0, or -1 while every Identifier
// is still held.
int accounting_msg_number(struct accounting_node *node);
// Appends the measured attributes of a session's packet. Always 0.
int accounting_report_sta(struct accounting_node *node, int status, AUTH_HDR *request);
// Acct-Terminate-Cause for a logout cause, or 0 (reason untouched).
int get_termination_cause(int uam_logout_cause, const char **reason);

#endif
