// The time scheduler: one time-sorted list of one-shot entries on
// event_header, each naming a queue head and a handler, never a node.
// register_schedule and unregister_schedule expect `mutex` held.
#ifndef METERD_DELIVERY_SCHEDULER_H
#define METERD_DELIVERY_SCHEDULER_H

#include <ctime>

#include "database/accounting.h"

enum { SCHEDULER_TICK = 3 };

// 0, or -1 when no memory could be had (nothing is then on the list).
int register_schedule(time_t register_time, scheduler_func handler, struct list_head *header);
// Removes the latest entry of header: 0, or -1 when it has none.
int unregister_schedule(struct list_head *header);
// One pass over all entries at second now, firing the due ones. Expects
// `mutex` held; handlers may register and unregister during the pass.
void scheduler_pass(time_t now);
// Thread entry: a pass every 3 seconds, for ever.
void *do_scheduler(void *argv);

#endif
