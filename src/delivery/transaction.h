// The life of a node's request, from its first transmission to its end: the
// only place that begins, answers, retries, fails over and ends a
// transaction, and that releases a removed profile with its last one. Event
// handlers hand a node here and never touch the queues or send themselves.
// Where meterd's options change a rule, it asks the policy (policy.h).
//
// Everything expects `mutex` held.
#ifndef METERD_DELIVERY_TRANSACTION_H
#define METERD_DELIVERY_TRANSACTION_H

#include "database/accounting.h"

enum {
    FAIL_STATUS_TRY_BACKUP = 1,
    FAIL_STATUS_PRIMARY_DONE = 2,
    FAIL_STATUS_BACKUP_DONE = 3,
};

// Makes the delivery engine the owner of the RADIUS client's requests.
// Called once before any thread runs (and by every test set-up).
void transaction_init(void);

// An event's request: sends node's request (composed first for status if it
// holds none) and puts the node on the request queue. A datagram that did
// not leave waits for its time-out like one that got no answer.
void transaction_begin(struct accounting_node *node, int status);

// meterd -l: node's Interim-Update, its look-ups done, goes on as it would
// have gone without them.
void transaction_resume(struct accounting_node *node);

// A Stop that replaces whatever request of the session was in flight.
void transaction_replace(struct accounting_node *node, int status);

// The end of the daemon's service: node's request is sent once, nothing
// waits for its answer, and the node is freed.
void transaction_send_once(struct accounting_node *node, int status);

// Unique Identifiers: requests waiting for one, in the order they came,
// each holding no packet. The oldest goes as soon as one frees.
extern struct list_head id_wait_header;
void transaction_release_waiting(void);

// Frees a due node whose profile has no server, without a packet. An on/off
// node still counts its profile down, so that a removed profile without
// servers is released by its last one.
void transaction_drop(struct accounting_node *node);

// Scheduler handlers of the request queue (its deadlines) and of the fail
// and interim queues (their sends).
void request_timeout_handler(struct list_head *header);
void request_send_handler(struct list_head *header);

// Time-out of node's request: to the fail queue for another transmission, to
// the backup server, or the end of the node (and maybe of its removed
// profile).
void fail_handler(struct accounting_node *node);
void fail_handler_log(struct accounting_node *node, int fail_status);

// Frees every queued node of node's profile except node itself.
void remove_radius_queue(struct accounting_node *node);
// Releases node's removed profile: sweeps its other queued nodes, frees its
// servers and the record, and leaves node->self->acct_radius NULL. The
// caller frees node afterwards.
void release_radius_profile(struct accounting_node *node);

#endif
