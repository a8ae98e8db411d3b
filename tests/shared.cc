#include "shared.h"

#include <algorithm>
#include <cstring>

#include "database/portal_users.h"
#include "database/profiles.h"
#include "delivery/servers.h"
#include "delivery/transaction.h"
#include "frame/memory.h"
#include "radius/md5.h"
#include "radius/radius_msg.h"

namespace {

// Each node ends as one whose profile has no server: a removed profile goes
// with the last of its on/off nodes, as in the daemon.
void drain(list_head *queue)
{
    while (!list_empty(queue))
        transaction_drop(reinterpret_cast<accounting_node *>(queue->next));
}

}  // namespace

size_t signed_answer(uint8_t *out, const uint8_t *request, const uint8_t *body, size_t n, const char *secret)
{
    n = std::min(n, size_t{RADIUS_RECV_LEN - RADIUS_HDR_LEN});
    size_t len = RADIUS_HDR_LEN + (n ? n - 1 : 0);
    out[0] = n ? body[0] : 5;
    out[1] = request[1];
    out[2] = static_cast<uint8_t>(len >> 8);
    out[3] = static_cast<uint8_t>(len);
    memcpy(out + 4, request + 4, 16);
    if (n > 1)
        memcpy(out + RADIUS_HDR_LEN, body + 1, n - 1);
    MD5_CTX ctx;
    pra_MD5Init(&ctx);
    pra_MD5Update(&ctx, out, static_cast<unsigned>(len));
    pra_MD5Update(&ctx, reinterpret_cast<const unsigned char *>(secret), static_cast<unsigned>(strlen(secret)));
    pra_MD5Final(out + 4, &ctx);
    return len;
}

void clear_database()
{
    mtr_alloc_fail_at(0);
    drain(&request_queue_header);
    drain(&fail_queue_header);
    drain(&id_wait_header);
    drain(&backlog_header);
    while (!list_empty(&total_interim_queue_header)) {
        auto *q = reinterpret_cast<interim_queue *>(total_interim_queue_header.next);
        drain(&q->interim_queue_header);
        list_del(&q->total_interim_queue);
        mtr_free(q);
    }
    for (list_head *head : {&total_radius_server_header, &portal_radius_server_header}) {
        while (!list_empty(head)) {
            auto *radius = list_entry(head->next, accounting_radius, total_radius_server);
            remove_radius(radius);  // frees the sessions that wait on no queue
            free_radius_profile(radius);
        }
    }
    while (!list_empty(&event_header)) {
        auto *e = list_entry(event_header.next, scheduler_event_register, register_event);
        list_del(&e->register_event);
        mtr_free(e);
    }
    for (hash_table &bucket : mac_hash_table) {
        while (!list_empty(&bucket.head)) {
            list_head *e = bucket.head.next;
            list_del(e);
            mtr_free(list_entry(e, user_entry, user_list));
        }
    }
}

size_t list_length(const struct list_head *head)
{
    size_t n = 0;
    for (const struct list_head *p = head->next; p != head; p = p->next)
        n++;
    return n;
}
