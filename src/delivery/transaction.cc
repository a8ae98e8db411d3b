// The life of a node's request: begin, answer, time-out and end.
#include "delivery/transaction.h"

#include <cstring>

#include "database/accounting_db_api.h"
#include "database/mac_text.h"
#include "database/nodes.h"
#include "database/profiles.h"
#include "delivery/identifiers.h"
#include "delivery/lookups.h"
#include "delivery/policy.h"
#include "delivery/queues.h"
#include "delivery/scheduler.h"
#include "delivery/servers.h"
#include "frame/clock.h"
#include "frame/console.h"
#include "platform/station_lookups.h"
#include "radius/client_stats.h"
#include "radius/compose.h"
#include "radius/radius_msg.h"
#include "radius/radius_send_recieve.h"
#include "radius/transport.h"

struct list_head id_wait_header = LIST_HEAD_INIT(id_wait_header);

namespace {

// Heads of the scheduler entries that are no queue's: the wake of a resting
// Identifier, and the probes of dead servers.
struct list_head probe_timer = LIST_HEAD_INIT(probe_timer);

void wake_handler(struct list_head *)
{
    transaction_release_waiting();
}

// The waiting requests are woken when the first resting Identifier may be
// taken again (an answer frees one sooner).
void schedule_wake()
{
    unregister_schedule(&id_wait_header);
    time_t wake = identifier_next_wake();
    if (wake)
        register_schedule(wake, wake_handler, &id_wait_header);
}

// A request that leaves its queue unanswered: its Identifier rests.
void rest(const struct user_accounting_info *self)
{
    identifier_rest(self);
    if (!list_empty(&id_wait_header))
        schedule_wake();
}

// ... and its packet goes.
void abandon(struct user_accounting_info *self)
{
    rest(self);
    free_accounting_msg(self);
}

void free_nodes_of(struct list_head *header, const struct accounting_radius *radius,
                   const struct accounting_node *spared)
{
    struct list_head *pos, *next;
    list_for_each_safe(pos, next, header) {
        auto *node = list_entry(pos, struct accounting_node, queue);
        if (node != spared && node->self->acct_radius == radius) {
            rest(node->self);
            free_accounting_node(node);
        }
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

// Sends node's request, composed for status if it holds none, and queues it
// for its answer; with unique Identifiers a request that finds none free, or
// older ones waiting for one, waits behind them instead.
void start(struct accounting_node *node, int status)
{
    struct user_accounting_info *self = node->self;
    self->status = static_cast<unsigned char>(status);
    if (policy->unique_ids && !self->request && node_server(self) &&
        (!list_empty(&id_wait_header) || accounting_msg(node, status) == 1)) {
        self->queue_type = QUEUE_TYPE_NONE;
        list_move_tail(&node->queue, &id_wait_header);
        return;
    }
    send_accounting(node, status);
    insert_node_to_queue(node, QUEUE_TYPE_REQUEST);
}

// meterd -k: a new request goes to a server that may take it, or waits on
// the backlog, without a packet, until one may.
void route(struct accounting_node *node)
{
    if (servers_route(node)) {
        start(node, node->self->status);
        return;
    }
    abandon(node->self);
    node->self->queue_type = QUEUE_TYPE_BACKLOG;
    // In the order of their events, not of their arrival: a request whose
    // probe or budget has just run out goes back ahead of younger ones, so
    // that the oldest drains first and the report's oldest is the first.
    node->self->report_time = node->self->event_time;
    queue_insert_and_sort(node, &backlog_header);
}

void send_request(struct accounting_node *node)
{
    if (policy->keep_records)
        route(node);
    else
        start(node, node->self->status);
}

// meterd -k: the backlog goes out oldest first, as far as the servers of
// each profile may take it.
void drain_backlog()
{
    struct list_head *pos, *next;
    list_for_each_safe(pos, next, &backlog_header) {
        auto *node = list_entry(pos, struct accounting_node, queue);
        if (servers_route(node))
            start(node, node->self->status);
    }
}

void probe_handler(struct list_head *header)
{
    time_t next = servers_probe(mtr_time());
    if (next)
        register_schedule(next, probe_handler, header);
    drain_backlog();
}

void schedule_probes()
{
    unregister_schedule(&probe_timer);
    time_t next = servers_probe(mtr_time());
    if (next)
        register_schedule(next, probe_handler, &probe_timer);
}

// The owner's side of the RADIUS client.

void answered(struct accounting_node *node, uint32_t status, const radius_server *server)
{
    struct user_accounting_info *self = node->self;
    free_accounting_msg(self);
    if (policy->keep_records)
        servers_live(node_server(self));
    // The budget then belongs to each request, not to the session's life:
    // the next request starts again with its full transmissions to the
    // first server of the profile.
    if (policy->budget_per_request) {
        self->retry_count = 1;
        self->probing = 0;
        self->server = servers_first(self->acct_radius);
        if (self->server == SERVER_NONE)
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
    if (policy->keep_records)
        drain_backlog();
}

int probe_answer(AUTH_HDR *response, const struct radius_datagram *d)
{
    if (!policy->keep_records)
        return 0;
    bool revived = false;
    int handled = servers_probe_answer(response, d, &revived);
    if (revived)
        drain_backlog();
    return handled;
}

// The address that a packet carries is the session's from then on: a failed
// look-up leaves 0.0.0.0 there, and a later Stop reports it.
int session_address(struct accounting_node *node, struct in_addr *ip)
{
    struct user_node_info *user = node->self->user;
    // meterd -l: an Interim-Update carries what its look-up found (lookups.h);
    // a Start on a login asks ovat itself, without a shell and bounded.
    if (policy->lookups && node->self->status == ACCOUNTING_INTERIM) {
        *ip = user->user_ip;
        return node->self->address_found;
    }
    struct in_addr known = user->user_ip;
    int found = policy->lookups ? lookups_address_now(user->user_mac, &user->user_ip)
                                : whal_getip(user->user_mac, &user->user_ip);
    if (!found && policy->keep_address)
        user->user_ip = known;
    *ip = user->user_ip;
    return found;
}

void session_counters(struct accounting_node *node, conn_t *counters)
{
    struct user_accounting_info *self = node->self;
    // meterd -l: stored by the Interim-Update's look-up (lookups.h).
    if (policy->lookups) {
        *counters = self->conn_tx_rx_status;
        return;
    }
    char rrm_mac[MAC_TEXT_SIZE];
    memset(rrm_mac, 0, sizeof rrm_mac);
    change_mac_to_rrm_format(rrm_mac, self->user->user_mac);
    conn_t seen;
    station_counters(rrm_mac, &seen, policy->read_counter);
    policy->take_counters(self, &seen, true);
    *counters = self->conn_tx_rx_status;
}

void each_waiting(void (*each)(const struct user_accounting_info *self))
{
    struct list_head *pos;
    list_for_each(pos, &request_queue_header)
        each(list_entry(pos, struct accounting_node, queue)->self);
}

const struct radius_client_ops owner = {find_request,     answered,         session_address,
                                        session_counters, identifier_take, each_waiting,
                                        probe_answer,     identifier_hold};

// A request that falls due on the fail queue goes again, as it is; one on
// an interim queue is the session's next Interim-Update, whose event is the
// second it fell due.
void resend(struct accounting_node *node)
{
    struct user_accounting_info *self = node->self;
    if (self->queue_type == QUEUE_TYPE_INTERIM) {
        self->status = ACCOUNTING_INTERIM;
        self->event_time = self->report_time;
        if (policy->lookups)
            lookups_begin(node);
        else
            send_request(node);
        return;
    }
    // The status counts only when a new packet must be composed: the design
    // composes an Interim-Update then, whatever the request was.
    if (!policy->budget_per_request)
        self->status = ACCOUNTING_INTERIM;
    start(node, self->status);
}

}  // namespace

void transaction_init(void)
{
    radius_client_register(&owner);
    queues_handlers(request_timeout_handler, request_send_handler);
}

void transaction_begin(struct accounting_node *node, int status)
{
    struct user_accounting_info *self = node->self;
    self->status = static_cast<unsigned char>(status);
    self->event_time = mtr_time();
    send_request(node);
}

void transaction_resume(struct accounting_node *node)
{
    send_request(node);
}

void transaction_replace(struct accounting_node *node, int status)
{
    struct user_accounting_info *self = node->self;
    // Whatever transaction was in flight is abandoned: with no stored
    // request, the new one is composed anew.
    queue_remove(node);
    abandon(self);
    // With the budget per request the new one has all its transmissions,
    // not what the abandoned one left.
    if (policy->budget_per_request) {
        self->retry_count = 1;
        self->server = servers_first(self->acct_radius);
        if (self->server == SERVER_NONE)
            self->server = SERVER_PRIMARY;
    }
    transaction_begin(node, status);
}

void transaction_send_once(struct accounting_node *node, int status)
{
    struct user_accounting_info *self = node->self;
    self->event_time = mtr_time();
    // With dead servers known, the last word goes to one that answers.
    if (policy->keep_records && servers_first(self->acct_radius) != SERVER_NONE)
        self->server = servers_first(self->acct_radius);
    send_accounting(node, status);
    free_accounting_node(node);
}

void transaction_release_waiting(void)
{
    while (!list_empty(&id_wait_header)) {
        struct accounting_node *node = list_entry(id_wait_header.next, struct accounting_node, queue);
        int made = accounting_msg(node, node->self->status);
        if (made == 1) {
            schedule_wake();  // every Identifier held
            return;
        }
        send_accounting(node, node->self->status);
        insert_node_to_queue(node, QUEUE_TYPE_REQUEST);
    }
}

void transaction_drop(struct accounting_node *node)
{
    end_node(node, false, false);
}

void request_timeout_handler(struct list_head *header)
{
    serve_queue(header, request_timeout_handler, fail_handler, transaction_drop);
}

void request_send_handler(struct list_head *header)
{
    serve_queue(header, request_send_handler, resend, transaction_drop);
}

void fail_handler(struct accounting_node *node)
{
    struct user_accounting_info *self = node->self;
    struct accounting_radius *radius = self->acct_radius;
    client_stats_timeout(self);
    radius_transport->timeout(self);

    // A request that probes a dead server has one transmission; unanswered,
    // it goes on with a whole budget where the profile can take it.
    if (self->probing) {
        abandon(self);
        send_request(node);
        return;
    }

    // The budget belongs to the node, not to the transaction: a response
    // does not reset it, so earlier time-outs of the session count here too.
    if (self->retry_count <= radius->retry_count) {
        self->retry_count++;
        insert_node_to_queue(node, QUEUE_TYPE_FAIL);
        return;
    }

    // meterd -k: nothing is given up. The server is dead, unless it answered
    // others meanwhile, and the request, composed anew (its Acct-Delay-Time
    // moves), goes where the profile can take it, or waits.
    if (policy->keep_records) {
        radius_server *server = node_server(self);
        const char *user = self->user ? self->user->user_name : "";
        if (server && servers_dead(server, self)) {
            TRACE("%s accounting fail. Accounting server %s no response.\n", user, server->hostname);
            schedule_probes();
        } else if (server) {
            TRACE("%s accounting fail. Accounting server %s answers others: send again.\n", user,
                  server->hostname);
        }
        abandon(self);
        send_request(node);
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
    rest(self);
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
    free_nodes_of(&backlog_header, radius, node);
    free_nodes_of(&lookup_header, radius, node);
}

void release_radius_profile(struct accounting_node *node)
{
    struct accounting_radius *radius = node->self->acct_radius;
    remove_radius_queue(node);
    free_radius_profile(radius);
    node->self->acct_radius = nullptr;
    TRACE("free RADIUS profile \n");
}
