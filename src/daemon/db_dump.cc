// The database dump: /tmp/meterd_db, mode 0600, and each of its lines on the console.
#include "daemon/db_dump.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "database/accounting.h"
#include "delivery/lookups.h"
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

// The dump's name is fixed and /tmp is everyone's: whatever a local user
// planted there must not make root truncate or write another file, nor may
// the queues (user names, addresses) be readable by others. Not following a
// link, and taking an existing file only when it is a plain file of ours
// with no other name, settles that on the descriptor itself, so nothing can
// be swapped in between the check and the write. O_NONBLOCK keeps a planted
// FIFO from holding the daemon, lock and all, in open(). NULL after one
// console line that says why.
FILE *open_dump(void)
{
    const char *why = nullptr;
    int fd = open(METERD_DB_DUMP, O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);
    struct stat st;
    if (fd < 0 || fstat(fd, &st) != 0)
        why = strerror(errno);
    else if (!S_ISREG(st.st_mode) || st.st_nlink != 1 || st.st_uid != geteuid())
        why = "not a regular file of ours with a single link";
    // An existing file keeps its mode through open(): it may be one that
    // an earlier version left readable by all.
    else if (fchmod(fd, 0600) != 0 || ftruncate(fd, 0) != 0)
        why = strerror(errno);
    FILE *fp = why ? nullptr : fdopen(fd, "w");
    if (!why && !fp)
        why = strerror(errno);
    if (why) {
        if (fd >= 0)
            close(fd);
        console_write("meterd: refusing to write %s: %s\n", METERD_DB_DUMP, why);
    }
    return fp;
}

}  // namespace

int debug_print_db_info(void)
{
    // Without the file the console copy stays unwritten too, as it always
    // has when the file could not be made: the copy echoes the file, it is
    // not a report of its own, and after a planted name the operator wants
    // the one line that points at it, not a screen of queues around it.
    FILE *fp = open_dump();
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
    // meterd -l: only while some wait, so that a dump without them reads as always.
    if (!list_empty(&lookup_header)) {
        dump_line(fp, true, "\nlook-up queue: %p\n", static_cast<void *>(&lookup_header));
        dump_nodes(fp, &lookup_header);
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
