// Identifiers of new packets.
#include "delivery/identifiers.h"

#include <cstring>

#include "delivery/policy.h"
#include "frame/clock.h"
#include "radius/radius_msg.h"
#include "radius/radius_send_recieve.h"

uint8_t request_id = 0;

namespace {

enum { REST_SECONDS = 2 * RADIUS_TIME_OUT };

// The second until which each Identifier of each socket rests; 0 for none.
time_t rest_until[RADIUS_SOURCES][256];


void mark(uint8_t held[][256 / 8], int source, uint8_t id)
{
    if (source >= 0 && source < RADIUS_SOURCES)
        held[source][id / 8] |= static_cast<uint8_t>(1u << (id % 8));
}

void mark_queue(uint8_t held[][256 / 8], struct list_head *queue)
{
    struct list_head *pos;
    list_for_each(pos, queue) {
        const struct user_accounting_info *self = list_entry(pos, struct accounting_node, queue)->self;
        if (self->request)
            mark(held, self->source, self->request->id);
    }
}

// Every Identifier held, in flight, probing or resting, marked in
// held[source][id / 8].
void identifiers_held(uint8_t held[][256 / 8])
{
    memset(held, 0, RADIUS_SOURCES * (256 / 8));
    mark_queue(held, &request_queue_header);
    mark_queue(held, &fail_queue_header);
    struct list_head *const families[] = {&total_radius_server_header, &portal_radius_server_header};
    for (struct list_head *family : families) {
        struct list_head *pos;
        list_for_each(pos, family) {
            auto *radius = list_entry(pos, struct accounting_radius, total_radius_server);
            const radius_server *const servers[] = {radius->primary_server, radius->backup_server};
            for (const radius_server *s : servers)
                if (s && s->state.probe_in_flight)
                    mark(held, s->state.probe_source, s->state.probe_id);
        }
    }
    time_t now = mtr_time();
    for (int s = 0; s < RADIUS_SOURCES; s++)
        for (int k = 0; k < 256; k++)
            if (rest_until[s][k] > now)
                mark(held, s, static_cast<uint8_t>(k));
}

}  // namespace

int identifier_take(unsigned char *source)
{
    *source = 0;
    if (!policy->unique_ids)
        return request_id++;
    uint8_t held[RADIUS_SOURCES][256 / 8];
    identifiers_held(held);
    for (int s = 0; s < radius_source_limit && s < RADIUS_SOURCES; s++) {
        for (int k = 0; k < 256; k++) {
            uint8_t id = static_cast<uint8_t>(request_id + k);
            if (held[s][id / 8] & (1u << (id % 8)))
                continue;
            if (radius_source_open(s) != 0)
                return -1;
            *source = static_cast<unsigned char>(s);
            request_id = static_cast<uint8_t>(id + 1);
            return id;
        }
    }
    return -1;
}

void identifier_rest(const struct user_accounting_info *self)
{
    if (!policy->unique_ids || !self->request || self->source >= RADIUS_SOURCES)
        return;
    rest_until[self->source][self->request->id] = mtr_time() + REST_SECONDS;
}

void identifier_hold(int source, uint8_t id)
{
    if (source >= 0 && source < RADIUS_SOURCES)
        rest_until[source][id] = mtr_time() + REST_SECONDS;
}

time_t identifier_next_wake(void)
{
    time_t now = mtr_time(), first = 0;
    for (auto &socket : rest_until)
        for (time_t t : socket)
            if (t > now && (first == 0 || t < first))
                first = t;
    return first;
}

void identifiers_clear(void)
{
    memset(rest_until, 0, sizeof rest_until);
}
