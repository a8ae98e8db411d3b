// Session nodes and on/off nodes: their creation and release. Expects
// `mutex` held.
#ifndef METERD_DATABASE_NODES_H
#define METERD_DATABASE_NODES_H

#include "database/accounting.h"

// A session node, linked on its MAC list and its profile (and, with ipchange
// non-zero, on ip_change_header) but on no delivery queue. NULL on no memory.
struct accounting_node *add_new_node(accounting_msg_t *event, struct accounting_radius *radius,
                                     int type, int ipchange);
// An on/off node linked to nothing; raises the profile's on_off_count.
struct accounting_node *add_new_node_for_on_off(struct accounting_radius *radius);
// The list of a family's sessions, by MAC: mac_address_header or
// portal_mac_address_header.
struct list_head *session_list(int type);
// Unlinks and frees the node with all it owns; NULL accepted.
void free_accounting_node(struct accounting_node *node);
// Drops the stored request, if any; the node lives on.
void free_accounting_msg(struct user_accounting_info *info);

#endif
