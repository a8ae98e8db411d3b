// The request, fail and interim queues, their scheduler handlers and the
// look-up of a request by Identifier. Everything expects `mutex` held.
#ifndef METERD_DELIVERY_QUEUES_H
#define METERD_DELIVERY_QUEUES_H

#include "database/accounting.h"

// Moves node onto the queue of queue_type and arranges its scheduler entry.
// Always 0; an unknown type leaves the node where it was.
int insert_node_to_queue(struct accounting_node *node, unsigned short queue_type);
// Head of the interim queue of that key, created on demand; NULL on no memory.
struct list_head *get_interim_queue_header(int interim);
// Sorted insertion by report_time; among equals the newer stands behind.
int queue_insert_and_sort(struct accounting_node *node, struct list_head *queue_header);
void request_timeout_handler(struct list_head *header);
void request_send_handler(struct list_head *header);
// First node of the request queue whose stored request has that id, or NULL.
// source, the socket the answer came on, is 0 but with unique Identifiers,
// where an Identifier is unique per socket.
struct accounting_node *find_request(int response_id, int source = 0);

#endif
