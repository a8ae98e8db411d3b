// The database dump: /tmp/meterd_db, and each of its lines on the console.
#include "daemon/db_dump.h"

#include <cstdarg>
#include <cstdio>

#include "database/accounting.h"
#include "frame/console.h"
#include "frame/meterd.h"

namespace {

void dump_line(FILE *fp, bool to_console, const char *fmt, ...) __attribute__((format(printf, 3, 4)));

void dump_line(FILE *fp, bool to_console, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    if (to_console) {
        va_list copy;
        va_copy(copy, ap);
        console_vwrite(fmt, copy);
        va_end(copy);
    }
    vfprintf(fp, fmt, ap);
    va_end(ap);
}

void dump_nodes(FILE *fp, struct list_head *head)
{
    struct list_head *p;
    list_for_each(p, head) {
        auto *node = reinterpret_cast<struct accounting_node *>(p);
        const struct user_accounting_info *self = node->self;
        dump_line(fp, true, "username: %s, report_time: %lu, interface:%s \n",
                  self->user ? self->user->user_name : " ",
                  static_cast<unsigned long>(self->report_time),
                  self->acct_radius ? self->acct_radius->interface : "");
    }
}

}  // namespace

int debug_print_db_info(void)
{
    FILE *fp = fopen(METERD_DB_DUMP, "w");
    if (!fp)
        return 0;
    dump_line(fp, true, "scheduler: \n");
    struct list_head *p;
    list_for_each(p, &event_header) {
        auto *e = list_entry(p, struct scheduler_event_register, register_event);
        dump_line(fp, true, "time:%lu, queue_header: %p \n",
                  static_cast<unsigned long>(e->register_time), static_cast<void *>(e->header));
    }
    dump_line(fp, true, "\nrequest queue: %p\n", static_cast<void *>(&request_queue_header));
    dump_nodes(fp, &request_queue_header);
    dump_line(fp, true, "\nfail queue: %p\n", static_cast<void *>(&fail_queue_header));
    dump_nodes(fp, &fail_queue_header);
    list_for_each(p, &total_interim_queue_header) {
        auto *q = reinterpret_cast<struct interim_queue *>(p);
        dump_line(fp, true, "\ninterim queue: %p(interval: %d)\n",
                  static_cast<void *>(&q->interim_queue_header), q->interim);
        dump_nodes(fp, &q->interim_queue_header);
    }
    if (is_cloud) {
        dump_line(fp, false, "\nradius: \n");
        list_for_each(p, &portal_radius_server_header) {
            auto *r = list_entry(p, struct accounting_radius, total_radius_server);
            dump_line(fp, false, "interface: %s, interim: %d \n", r->interface, r->acc_interim);
        }
    }
    fclose(fp);
    return 0;
}
