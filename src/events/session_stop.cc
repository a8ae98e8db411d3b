// The end of a session and the refresh of its counters, on behalf of the
// driver events.
#include "events/session_stop.h"

#include <cstring>

#include "database/accounting_db_api.h"
#include "database/nodes.h"
#include "delivery/policy.h"
#include "delivery/transaction.h"
#include "frame/console.h"

namespace {

// A pair with a zero in it is a driver that has not counted yet, not a
// station that moved nothing: it must not wipe what an Interim-Update stored.
bool store_counters(struct user_accounting_info *self, const conn_t *status)
{
    return policy->take_counters(self, status, false);
}

}  // namespace

int accounting_stop_by_mac(struct accounting_node *node, int type, conn_t *status)
{
    struct user_accounting_info *self = node->self;
    if (!self->user->accounting_start) {
        // Never started: the server has not heard of it and need not.
        free_accounting_node(node);
        return 0;
    }
    if (type == PROFILE_TYPE_NORMAL)
        self->user->uam_logout_cause = 4;
    store_counters(self, status);
    transaction_replace(node, ACCOUNTING_STOP);
    ip_address_table_remove(node);
    return 0;
}

int accounting_update_tx_rx(const char *mac, int type, const conn_t *status)
{
    int found = 0;
    struct list_head *p;
    list_for_each(p, session_list(type)) {
        auto *node = list_entry(p, struct accounting_node, address_sorting_list);
        struct user_accounting_info *self = node->self;
        if (strcmp(self->user->user_mac, mac) != 0)
            continue;
        found = 1;
        if (store_counters(self, status))
            TRACE("update tx=%lu,rx=%lu for user mac :%s\n",
                  static_cast<unsigned long>(self->conn_tx_rx_status.tx),
                  static_cast<unsigned long>(self->conn_tx_rx_status.rx), mac);
    }
    if (!found)
        TRACE("can't find user when update tx/rx byte, user mac: %s\n", mac);
    return found;
}
