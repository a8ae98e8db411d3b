// The time scheduler: one list of one-shot entries, fired by one thread.
#include "delivery/scheduler.h"

#include <unistd.h>

#include "frame/clock.h"
#include "frame/console.h"
#include "frame/memory.h"
#include "frame/meterd.h"

namespace {

// Where the running pass goes on, and the entry whose handler is running.
// A handler may unregister either of them; unregister_schedule then moves
// the cursor on or forgets the running entry, so that the pass never
// follows or frees a link that is already gone.
struct list_head *pass_next = nullptr;
struct scheduler_event_register *pass_running = nullptr;

struct scheduler_event_register *entry_of(struct list_head *link)
{
    return list_entry(link, struct scheduler_event_register, register_event);
}

}  // namespace

int register_schedule(time_t register_time, scheduler_func handler, struct list_head *header)
{
    auto *entry = static_cast<struct scheduler_event_register *>(
        mtr_malloc(sizeof(struct scheduler_event_register)));
    if (!entry) {
        TRACE("insufficient memory\n");
        return -1;
    }
    entry->header = header;
    entry->register_time = register_time;
    entry->handler = handler;

    // From the tail, since a new entry is usually the latest. Only a strictly
    // earlier entry stops the walk, so the newest stands first among equals.
    struct list_head *pos = event_header.prev;
    while (pos != &event_header && entry_of(pos)->register_time >= register_time)
        pos = pos->prev;
    list_add(&entry->register_event, pos);

    TRACE("(%s) register-time: %lu\n", "register_schedule",
          static_cast<unsigned long>(register_time));
    return 0;
}

int unregister_schedule(struct list_head *header)
{
    for (struct list_head *pos = event_header.prev; pos != &event_header; pos = pos->prev) {
        struct scheduler_event_register *entry = entry_of(pos);
        if (entry->header != header)
            continue;
        if (pos == pass_next)
            pass_next = pos->next;
        if (entry == pass_running)
            pass_running = nullptr;
        list_del(&entry->register_event);
        mtr_free(entry);
        return 0;
    }
    return -1;
}

void scheduler_pass(time_t now)
{
    struct list_head *pos = event_header.next;
    while (pos != &event_header) {
        struct scheduler_event_register *entry = entry_of(pos);
        // Noted before the handler runs: what the handler registers ahead of
        // this point waits for the next pass.
        pass_next = pos->next;
        TRACE("(%s) register-time: %lu, queue header: %p. Now time: %lu\n", "do_scheduler",
              static_cast<unsigned long>(entry->register_time),
              static_cast<void *>(entry->header), static_cast<unsigned long>(now));
        if (entry->register_time <= now) {
            pass_running = entry;
            entry->handler(entry->header);
            if (pass_running) {
                list_del(&entry->register_event);
                mtr_free(entry);
            }
            pass_running = nullptr;
        }
        pos = pass_next;
    }
    pass_next = nullptr;
}

void *do_scheduler(void *argv)
{
    (void)argv;
    for (;;) {
        // Read before waiting for the lock: the pass works with the second
        // at which it began to wait.
        time_t now = mtr_time();
        pthread_mutex_lock(&mutex);
        scheduler_pass(now);
        pthread_mutex_unlock(&mutex);
        sleep(SCHEDULER_TICK);
    }
    return nullptr;
}
