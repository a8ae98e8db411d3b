// The list wrappers of the accounting database: each moves one link of a
// node and leaves it self-linked when it comes off, so that a second removal
// is harmless.
//
// Every operation of database/ expects the caller to hold the global `mutex`.
#ifndef METERD_DATABASE_ACCOUNTING_DB_API_H
#define METERD_DATABASE_ACCOUNTING_DB_API_H

#include "database/accounting.h"

void ip_address_table_remove(struct accounting_node *node);
void ip_change_table_remove(struct accounting_node *node);
void queue_insert_to_tail(struct accounting_node *node, struct list_head *header);
void queue_remove(struct accounting_node *node);
void radius_profile_list_add(struct accounting_node *node);
void radius_profile_list_remove(struct accounting_node *node);

#endif
