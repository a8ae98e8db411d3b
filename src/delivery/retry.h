// Retry and failover of a request whose deadline has passed, and the
// release of a removed profile. Everything expects `mutex` held.
#ifndef METERD_DELIVERY_RETRY_H
#define METERD_DELIVERY_RETRY_H

#include "database/accounting.h"

enum {
    FAIL_STATUS_TRY_BACKUP = 1,
    FAIL_STATUS_PRIMARY_DONE = 2,
    FAIL_STATUS_BACKUP_DONE = 3,
};

// Moves node to the fail queue for another transmission, fails it over to
// the backup server, or ends it (and maybe its removed profile).
void fail_handler(struct accounting_node *node);
void fail_handler_log(struct accounting_node *node, int fail_status);
// Frees every queued node of node's profile except node itself.
void remove_radius_queue(struct accounting_node *node);
// Releases node's removed profile: sweeps its other queued nodes, frees its
// servers and the record, and leaves node->self->acct_radius NULL. The
// caller frees node afterwards.
void release_radius_profile(struct accounting_node *node);

#endif
