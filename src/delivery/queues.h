// The request, fail and interim queues, their scheduler handlers and the
// look-up of a request by Identifier. Everything expects `mutex` held.
#ifndef METERD_DELIVERY_QUEUES_H
#define METERD_DELIVERY_QUEUES_H

#include "database/accounting.h"

// The scheduler handlers that the queues' entries run: the request queue's
// deadlines, and the sends of the fail and interim queues. Set once by their
// owner (transaction_init).
void queues_handlers(scheduler_func deadline, scheduler_func send);
// Moves node onto the queue of queue_type and arranges its scheduler entry.
// Always 0; an unknown type leaves the node where it was.
int insert_node_to_queue(struct accounting_node *node, unsigned short queue_type);
// Head of the interim queue of that key, created on demand; NULL on no memory.
struct list_head *get_interim_queue_header(int interim);
// Sorted insertion by report_time; among equals the newer stands behind.
int queue_insert_and_sort(struct accounting_node *node, struct list_head *queue_header);
// One pass of a scheduler handler (self) over a sorted queue: each due node
// goes to `due`, or to `drop` when its profile has no server; the first
// node not yet due sets the queue's next entry.
void serve_queue(struct list_head *header, scheduler_func self, void (*due)(struct accounting_node *node),
                 void (*drop)(struct accounting_node *node));
// First node of the request queue whose stored request has that id, or NULL.
// source, the socket the answer came on, is 0 but with unique Identifiers,
// where an Identifier is unique per socket.
struct accounting_node *find_request(int response_id, int source = 0);

#endif
