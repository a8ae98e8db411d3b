// The life of a node's request: begin, answer, time-out and end.
#include "delivery/transaction.h"

#include <cstring>

#include "database/mac_text.h"
#include "database/nodes.h"
#include "database/profiles.h"
#include "delivery/queues.h"
#include "frame/console.h"
#include "frame/extensions.h"
#include "platform/station_lookups.h"
#include "radius/client_stats.h"
#include "radius/compose.h"
#include "radius/radius_msg.h"
#include "radius/radius_send_recieve.h"

// Unique Identifiers only: requests composed while all 256 Identifiers were
// held, in the order they came, each waiting for one to come free.
struct list_head id_wait_header = LIST_HEAD_INIT(id_wait_header);

namespace {

void free_nodes_of(struct list_head *header, const struct accounting_radius *radius,
                   const struct accounting_node *spared)
{
    struct list_head *pos, *next;
    list_for_each_safe(pos, next, header) {
        auto *node = list_entry(pos, struct accounting_node, queue);
        if (node != spared && node->self->acct_radius == radius)
            free_accounting_node(node);
    }
}

// The one end of a node. An on/off node counts its profile down, and a
// removed profile goes with its last transaction, or at once with the
// answer to its Accounting-Off (off_answered), which is the last word about
// it whatever else still waits. At a count of 0 no other on/off node lives,
// and a removed profile has no sessions left, so nothing else is freed.
void end_node(struct accounting_node *node, bool off_answered, bool trace_count)
{
    struct accounting_radius *radius = node->self->acct_radius;
    if (radius) {
        if (!node->self->user)
            radius->on_off_count--;
        if (off_answered || radius_profile_idle(radius))
            release_radius_profile(node);
        else if (trace_count)
            TRACE("on_off_count now is: %d\n", radius->on_off_count);
    }
    free_accounting_node(node);
}

// The owner's side of the RADIUS client.

int free_identifier(uint8_t from, int *source)
{
    uint8_t held[RADIUS_SOURCES][256 / 8];
    memset(held, 0, sizeof held);
    struct list_head *const queues[] = {&request_queue_header, &fail_queue_header};
    for (struct list_head *queue : queues) {
        struct list_head *pos;
        list_for_each(pos, queue) {
            const struct user_accounting_info *self = list_entry(pos, struct accounting_node, queue)->self;
            if (self->request && self->source < RADIUS_SOURCES)
                held[self->source][self->request->id / 8] |=
                    static_cast<uint8_t>(1u << (self->request->id % 8));
        }
    }
    for (int s = 0; s < radius_source_limit && s < RADIUS_SOURCES; s++) {
        for (int k = 0; k < 256; k++) {
            uint8_t id = static_cast<uint8_t>(from + k);
            if (!(held[s][id / 8] & (1u << (id % 8)))) {
                *source = s;
                return id;
            }
        }
    }
    return -1;
}

void answered(struct accounting_node *node, uint32_t status, const radius_server *server)
{
    struct user_accounting_info *self = node->self;
    free_accounting_msg(self);
    // The budget then belongs to each request, not to the session's life:
    // the next request starts again with its full transmissions to the
    // primary, then to the backup.
    if (extension_on(EXT_RETRY_PER_REQUEST)) {
        self->retry_count = 1;
        self->server = SERVER_PRIMARY;
    }

    const char *user_name = self->user ? self->user->user_name : "";
    switch (status) {
    case ACCOUNTING_START:
        insert_node_to_queue(node, QUEUE_TYPE_INTERIM);
        TRACE("Accounting Start. Username: %s, Server IP:%s\n", user_name, server->hostname);
        break;
    case ACCOUNTING_STOP:
        TRACE("Accounting Stop. Username: %s, Server IP:%s\n", user_name, server->hostname);
        end_node(node, false, false);
        break;
    case ACCOUNTING_INTERIM:
        insert_node_to_queue(node, QUEUE_TYPE_INTERIM);
        TRACE("Accounting Interim. Username: %s, Server IP:%s, Interim interval: %d\n", user_name,
              server->hostname, self->acc_interim);
        break;
    case ACCOUNTING_ON:
        TRACE("Accounting on. Server IP:%s\n", server->hostname);
        end_node(node, false, false);
        break;
    case ACCOUNTING_OFF:
        TRACE("Accounting off. Server IP:%s\n", server->hostname);
        end_node(node, true, false);
        break;
    default:
        break;
    }
    transaction_release_waiting();
}

// The address that a packet carries is the session's from then on: a failed
// look-up leaves 0.0.0.0 there, and a later Stop reports it.
int session_address(struct accounting_node *node, struct in_addr *ip)
{
    struct user_node_info *user = node->self->user;
    struct in_addr known = user->user_ip;
    int found = whal_getip(user->user_mac, &user->user_ip);
    // With steady counters a failed look-up keeps what the session knew.
    if (!found && extension_on(EXT_STEADY_COUNTERS))
        user->user_ip = known;
    *ip = user->user_ip;
    return found;
}

// Likewise the counters: a failed look-up stores 0 in both, and a later
// Stop sends them.
void session_counters(struct accounting_node *node, conn_t *counters)
{
    struct user_accounting_info *self = node->self;
    char rrm_mac[MAC_TEXT_SIZE];
    memset(rrm_mac, 0, sizeof rrm_mac);
    change_mac_to_rrm_format(rrm_mac, self->user->user_mac);
    conn_t seen;
    get_connection_status_by_ip(rrm_mac, &seen);
    // With steady counters a failed look-up (both 0) keeps them as well.
    if (!extension_on(EXT_STEADY_COUNTERS) || seen.rx || seen.tx)
        store_session_counters(self, &seen);
    *counters = self->conn_tx_rx_status;
}

void each_waiting(void (*each)(const struct user_accounting_info *self))
{
    struct list_head *pos;
    list_for_each(pos, &request_queue_header)
        each(list_entry(pos, struct accounting_node, queue)->self);
}

const struct radius_client_ops owner = {find_request,     answered,        session_address,
                                        session_counters, free_identifier, each_waiting};

}  // namespace

void transaction_init(void)
{
    radius_client_register(&owner);
}

void transaction_begin(struct accounting_node *node, int status)
{
    struct user_accounting_info *self = node->self;
    int source;
    if (extension_on(EXT_UNIQUE_IDS) && !self->request && node_server(self) &&
        (free_identifier(request_id, &source) < 0 || radius_source_open(source) != 0)) {
        // Composed now, with what the device says now, but it waits for an
        // Identifier rather than take one that an answer could meet. Without
        // memory for it the node takes the design's road below.
        if (accounting_msg(node, status) == 1) {
            list_move_tail(&node->queue, &id_wait_header);
            return;
        }
    }
    send_accounting(node, status);
    insert_node_to_queue(node, QUEUE_TYPE_REQUEST);
}

void transaction_release_waiting(void)
{
    while (!list_empty(&id_wait_header)) {
        struct accounting_node *node = list_entry(id_wait_header.next, struct accounting_node, queue);
        if (accounting_msg_number(node) != 0)
            return;
        send_accounting(node, 0);
        insert_node_to_queue(node, QUEUE_TYPE_REQUEST);
    }
}

void transaction_drop(struct accounting_node *node)
{
    end_node(node, false, false);
}

void fail_handler(struct accounting_node *node)
{
    struct user_accounting_info *self = node->self;
    struct accounting_radius *radius = self->acct_radius;
    client_stats_timeout(self);

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
    end_node(node, false, true);
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
    free_nodes_of(&id_wait_header, radius, node);
}

void release_radius_profile(struct accounting_node *node)
{
    struct accounting_radius *radius = node->self->acct_radius;
    remove_radius_queue(node);
    free_radius_profile(radius);
    node->self->acct_radius = nullptr;
    TRACE("free RADIUS profile \n");
}
