#include "frame/control.h"

#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "database/accounting_db_api.h"
#include "events/profile_events.h"
#include "frame/console.h"
#include "frame/meterd.h"

int domain_socket_create(const char *domain_sock_file, struct sockaddr_un *addr)
{
    int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    if (fd < 0)
        return -1;
    memset(addr, 0, sizeof *addr);
    addr->sun_family = AF_UNIX;
    copy_text(addr->sun_path, sizeof addr->sun_path, domain_sock_file);
    unlink(domain_sock_file);
    if (bind(fd, reinterpret_cast<struct sockaddr *>(addr), sizeof *addr) < 0) {
        close(fd);
        return -2;
    }
    return fd;
}

ssize_t domain_socket_recvfrom(int sockfd, void *msg, size_t msglen, struct sockaddr_un *src_addr)
{
    socklen_t addrlen = sizeof *src_addr;
    return recvfrom(sockfd, msg, msglen, 0, reinterpret_cast<struct sockaddr *>(src_addr), &addrlen);
}

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
    for (struct list_head *p = head->next; p != head; p = p->next) {
        auto *node = reinterpret_cast<struct accounting_node *>(p);
        const struct user_accounting_info *self = node->self;
        dump_line(fp, true, "username: %s, report_time: %lu, interface:%s \n",
                  self->user ? self->user->user_name : " ",
                  static_cast<unsigned long>(self->report_time),
                  self->acct_radius ? self->acct_radius->interface : "");
    }
}

}  // namespace

void ovat_event_input(accounting_event_t *rec, const void *data, size_t len)
{
    memcpy(rec, data, len < sizeof *rec ? len : sizeof *rec);
    TRACE("receive ovat event. %lld\n", static_cast<long long>(rec->event_id));
    pthread_mutex_lock(&mutex);
    // The whole 64-bit number is compared: an upper byte set matches nothing.
    switch (rec->event_id) {
    case ACCOUNTING_EVENT_REMOVE:
        accounting_event_remove(&rec->u.remove_profile);
        break;
    case ACCOUNTING_EVENT_AC_IP_CHANGE:
        accounting_event_ac_ip_change(&rec->u.ip_change_event);
        break;
    case ACCOUNTING_EVENT_INIT:
        accounting_event_init(&rec->u.radius_profile);
        break;
    case ACCOUNTING_EVENT_EXIT:
        ovat_exit_remove_radius_all();
        break;
    case ACCOUNTING_EVENT_AC_SHARED_SECRET_KEY_CHANGE:
        accounting_event_shared_secret_change(&rec->u.ip_change_event);
        break;
    case ACCOUNTING_EVENT_DEBUG_OFF:
        debug.store(0, std::memory_order_relaxed);
        break;
    case ACCOUNTING_EVENT_DEBUG_ON:
        debug.store(1, std::memory_order_relaxed);
        TRACE("debug level: %d\n", debug.load(std::memory_order_relaxed));
        break;
    case ACCOUNTING_EVENT_DEBUG_DUMP:
        debug_print_db_info();
        break;
    default:
        break;
    }
    pthread_mutex_unlock(&mutex);
}

int debug_print_db_info(void)
{
    FILE *fp = fopen(METERD_DB_DUMP, "w");
    if (!fp)
        return 0;
    dump_line(fp, true, "scheduler: \n");
    for (struct list_head *p = event_header.next; p != &event_header; p = p->next) {
        auto *e = list_entry(p, struct scheduler_event_register, register_event);
        dump_line(fp, true, "time:%lu, queue_header: %p \n",
                  static_cast<unsigned long>(e->register_time), static_cast<void *>(e->header));
    }
    dump_line(fp, true, "\nrequest queue: %p\n", static_cast<void *>(&request_queue_header));
    dump_nodes(fp, &request_queue_header);
    dump_line(fp, true, "\nfail queue: %p\n", static_cast<void *>(&fail_queue_header));
    dump_nodes(fp, &fail_queue_header);
    for (struct list_head *p = total_interim_queue_header.next; p != &total_interim_queue_header;
         p = p->next) {
        auto *q = reinterpret_cast<struct interim_queue *>(p);
        dump_line(fp, true, "\ninterim queue: %p(interval: %d)\n",
                  static_cast<void *>(&q->interim_queue_header), q->interim);
        dump_nodes(fp, &q->interim_queue_header);
    }
    if (is_cloud) {
        dump_line(fp, false, "\nradius: \n");
        for (struct list_head *p = portal_radius_server_header.next;
             p != &portal_radius_server_header; p = p->next) {
            auto *r = list_entry(p, struct accounting_radius, total_radius_server);
            dump_line(fp, false, "interface: %s, interim: %d \n", r->interface, r->acc_interim);
        }
    }
    fclose(fp);
    return 0;
}

void *do_event_handler_ovat(void *)
{
    accounting_event_t rec;
    unsigned char buf[sizeof rec];
    domain_socket_serve(ACCOUNTING_SOCK, &rec, buf, sizeof rec, __func__,
                        [](void *r, const void *data, size_t len) {
                            ovat_event_input(static_cast<accounting_event_t *>(r), data, len);
                        });
    return nullptr;
}

void domain_socket_serve(const char *path, void *rec, void *buf, size_t size, const char *thread,
                         void (*input)(void *rec, const void *data, size_t len))
{
    struct sockaddr_un addr;
    int fd = domain_socket_create(path, &addr);
    if (fd < 0)
        return;
    // Cleared once, so that a short first datagram reads zeros rather than
    // whatever the stack held; later datagrams keep the documented carry-over.
    memset(rec, 0, size);
    for (;;) {
        struct sockaddr_un from;
        ssize_t n = domain_socket_recvfrom(fd, buf, size, &from);
        if (n == -1) {
            fprintf(stderr, "%s-%s-%d: msgrcv fail!!\n", "accounting", thread, __LINE__);
            fprintf(stderr, "size: %zu\n", size);
            perror("msgrcv");
            continue;
        }
        input(rec, buf, static_cast<size_t>(n));
    }
}
