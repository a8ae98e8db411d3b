// Retry and failover of timed-out requests, and the release of a removed
// profile whose last transaction has ended.
#include "delivery/retry.h"

#include "database/accounting_db_api.h"
#include "delivery/queues.h"
#include "frame/console.h"
#include "frame/memory.h"
#include "radius/radius_send_recieve.h"

namespace {

void free_nodes_of(struct list_head *header, const struct accounting_radius *radius,
                   const struct accounting_node *spared)
{
    struct list_head *next;
    for (struct list_head *pos = header->next; pos != header; pos = next) {
        next = pos->next;
        auto *node = list_entry(pos, struct accounting_node, queue);
        if (node != spared && node->self->acct_radius == radius)
            free_accounting_node(node);
    }
}

}  // namespace

void fail_handler(struct accounting_node *node)
{
    struct user_accounting_info *self = node->self;
    struct accounting_radius *radius = self->acct_radius;

    // The budget belongs to the node, not to the transaction: a response
    // does not reset it, so earlier time-outs of the session count here too.
    if (self->retry_count <= radius->retry_count) {
        self->retry_count++;
        insert_node_to_queue(node, QUEUE_TYPE_FAIL);
        return;
    }

    if (self->server == SERVER_PRIMARY && radius->backup_server) {
        self->server = SERVER_BACKUP;
        fail_handler_log(node, FAIL_STATUS_TRY_BACKUP);
        self->retry_count = 1;
        // Same Identifier and attributes; only the authenticator follows the
        // new secret. Without a stored packet the next send composes one.
        if (self->request)
            get_accounting_vector(self->request, radius->backup_server->secret);
        insert_node_to_queue(node, QUEUE_TYPE_FAIL);
        return;
    }

    fail_handler_log(node, self->server == SERVER_PRIMARY ? FAIL_STATUS_PRIMARY_DONE
                                                          : FAIL_STATUS_BACKUP_DONE);
    if (!self->user)
        radius->on_off_count--;
    // Whatever kind of node ended: at a count of 0 no other on/off node lives,
    // and a removed profile has no sessions left.
    if (radius->acct_status == ACCOUNTING_OFF && radius->on_off_count == 0)
        release_radius_profile(node);
    else
        TRACE("on_off_count now is: %d\n", radius->on_off_count);
    free_accounting_node(node);
}

void fail_handler_log(struct accounting_node *node, int fail_status)
{
    if (!debug.load(std::memory_order_relaxed))
        return;
    struct user_accounting_info *self = node->self;
    const char *user = self->user ? self->user->user_name : "";
    // At a failover the primary is named, though `server` has already moved.
    const radius_server *server = fail_status == FAIL_STATUS_BACKUP_DONE
                                      ? self->acct_radius->backup_server
                                      : self->acct_radius->primary_server;
    const char *host = server ? server->hostname : "";
    switch (fail_status) {
    case FAIL_STATUS_TRY_BACKUP:
        TRACE("%s accounting fail. Accounting server %s no response. Try backup.\n", user, host);
        break;
    case FAIL_STATUS_PRIMARY_DONE:
    case FAIL_STATUS_BACKUP_DONE:
        TRACE("%s accounting fail. Accounting server %s no response.\n", user, host);
        break;
    default:
        break;
    }
}

void remove_radius_queue(struct accounting_node *node)
{
    struct accounting_radius *radius = node->self->acct_radius;
    struct list_head *interim = get_interim_queue_header(radius->acc_interim);
    if (interim)
        free_nodes_of(interim, radius, node);
    free_nodes_of(&fail_queue_header, radius, node);
    free_nodes_of(&request_queue_header, radius, node);
}

void release_radius_profile(struct accounting_node *node)
{
    struct accounting_radius *radius = node->self->acct_radius;
    remove_radius_queue(node);
    empty_radius_profile(radius);
    mtr_free(radius);
    node->self->acct_radius = nullptr;
    TRACE("free RADIUS profile \n");
}
