// The request, fail and interim queues and their scheduler handlers.
#include "delivery/queues.h"

#include <cstdio>

#include "database/accounting_db_api.h"
#include "database/profiles.h"
#include "delivery/scheduler.h"
#include "frame/clock.h"
#include "frame/console.h"
#include "frame/memory.h"
#include "radius/radius_msg.h"

namespace {

struct accounting_node *node_of(struct list_head *link)
{
    return list_entry(link, struct accounting_node, queue);
}

bool is_first(const struct accounting_node *node, const struct list_head *header)
{
    return node->queue.prev == header;
}

scheduler_func on_deadline, on_send;

}  // namespace

void queues_handlers(scheduler_func deadline, scheduler_func send)
{
    on_deadline = deadline;
    on_send = send;
}

int insert_node_to_queue(struct accounting_node *node, unsigned short queue_type)
{
    struct user_accounting_info *self = node->self;
    struct accounting_radius *radius = self->acct_radius;
    self->queue_type = queue_type;

    switch (queue_type) {
    case QUEUE_TYPE_REQUEST:
        self->report_time = mtr_time() + (radius ? radius->time_out : 0);
        queue_insert_and_sort(node, &request_queue_header);
        TRACE("add node %p to request queue\n", static_cast<void *>(node));
        if (is_first(node, &request_queue_header)) {
            // The entry set for the former first node would fire too late.
            if (node->queue.next != &request_queue_header)
                unregister_schedule(&request_queue_header);
            register_schedule(self->report_time, on_deadline, &request_queue_header);
        }
        break;

    case QUEUE_TYPE_FAIL:
        self->report_time = mtr_time();
        queue_insert_to_tail(node, &fail_queue_header);
        TRACE("add node %p to fail queue\n", static_cast<void *>(node));
        if (is_first(node, &fail_queue_header))
            register_schedule(self->report_time, on_send, &fail_queue_header);
        break;

    case QUEUE_TYPE_INTERIM: {
        self->report_time = mtr_time() + self->acc_interim;
        // Keyed by the profile's interval; the node's own interval gives the time.
        struct list_head *header = get_interim_queue_header(radius ? radius->acc_interim : 0);
        if (!header)
            break;
        queue_insert_to_tail(node, header);
        TRACE("add node to interim queue\n");
        TRACE("user: %s, mac: %s, interim: %d, report time: %lu\n",
              self->user ? self->user->user_name : "", self->user ? self->user->user_mac : "",
              self->acc_interim, static_cast<unsigned long>(self->report_time));
        // A node with interval 0 gets no entry: it waits without Interim-Updates.
        if (is_first(node, header) && self->acc_interim != 0) {
            TRACE("we must add node to interim queue\n");
            register_schedule(self->report_time, on_send, header);
        }
        break;
    }

    default:
        fprintf(stderr, "error queue type\n");
        break;
    }
    return 0;
}

struct list_head *get_interim_queue_header(int interim)
{
    struct list_head *pos;
    list_for_each(pos, &total_interim_queue_header) {
        auto *queue = list_entry(pos, struct interim_queue, total_interim_queue);
        if (queue->interim == interim)
            return &queue->interim_queue_header;
    }
    auto *queue = static_cast<struct interim_queue *>(mtr_malloc(sizeof(struct interim_queue)));
    if (!queue) {
        fprintf(stderr, "insufficient memory\n");
        return nullptr;
    }
    queue->interim = interim;
    INIT_LIST_HEAD(&queue->interim_queue_header);
    list_add_tail(&queue->total_interim_queue, &total_interim_queue_header);
    return &queue->interim_queue_header;
}

int queue_insert_and_sort(struct accounting_node *node, struct list_head *queue_header)
{
    // From the tail, since a new deadline is normally the latest. Among equal
    // deadlines the newer goes behind. The node itself is passed over so that
    // a node already on this queue cannot be linked behind itself.
    time_t key = node->self->report_time;
    struct list_head *pos = queue_header->prev;
    while (pos != queue_header &&
           (pos == &node->queue || node_of(pos)->self->report_time > key))
        pos = pos->prev;
    list_move(&node->queue, pos);
    return 0;
}

// The one form of both handlers. Every due node leaves the queue (moved or
// freed), and nothing frees another node of this queue, so the noted next
// node stays valid.
void serve_queue(struct list_head *header, scheduler_func self, void (*due)(struct accounting_node *node),
                 void (*drop)(struct accounting_node *node))
{
    time_t now = mtr_time();
    struct list_head *pos, *next;
    list_for_each_safe(pos, next, header) {
        struct accounting_node *node = node_of(pos);
        if (node->self->report_time > now) {
            // Nodes behind this one wait for it, even if they are due.
            register_schedule(node->self->report_time, self, header);
            return;
        }
        if (check_radius_exist(node->self->acct_radius) == 1)
            due(node);
        else
            drop(node);
    }
}

struct accounting_node *find_request(int response_id, int source)
{
    struct list_head *pos;
    list_for_each(pos, &request_queue_header) {
        struct accounting_node *node = node_of(pos);
        // A node can wait here without a packet: no server, or no memory.
        if (node->self->request && node->self->request->id == response_id &&
            node->self->source == source)
            return node;
    }
    return nullptr;
}
