// Ending a session and refreshing its counters, for the driver events.
// Both expect `mutex` held.
#ifndef METERD_EVENTS_SESSION_STOP_H
#define METERD_EVENTS_SESSION_STOP_H

#include "database/accounting.h"

// Sends the Stop of a started session (abandoning any transaction in flight)
// or frees a session that never started, with no packet. Always 0.
int accounting_stop_by_mac(struct accounting_node *node, int type, conn_t *status);

// Stores the counters on every node of the family that carries mac
// (canonical text), when both are non-zero. 1 if any node carries mac.
int accounting_update_tx_rx(const char *mac, int type, const conn_t *status);

#endif
