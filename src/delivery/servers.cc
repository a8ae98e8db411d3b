// Server states and probes of meterd -k.
#include "delivery/servers.h"

#include <arpa/inet.h>
#include <sys/random.h>

#include <cstdio>
#include <cstring>

#include "database/profiles.h"
#include "delivery/identifiers.h"
#include "delivery/policy.h"
#include "frame/clock.h"
#include "frame/console.h"
#include "radius/md5.h"
#include "radius/radius_msg.h"
#include "radius/radius_send_recieve.h"

struct list_head backlog_header = LIST_HEAD_INIT(backlog_header);

namespace {

bool usable(const radius_server *server)
{
    return server && !server->state.dead;
}

// Every server of every profile of both families.
template <typename F>
void each_server(F f)
{
    struct list_head *const families[] = {&total_radius_server_header, &portal_radius_server_header};
    for (struct list_head *family : families) {
        struct list_head *pos;
        list_for_each(pos, family) {
            auto *radius = list_entry(pos, struct accounting_radius, total_radius_server);
            if (radius->primary_server)
                f(radius, radius->primary_server, "primary");
            if (radius->backup_server)
                f(radius, radius->backup_server, "backup");
        }
    }
}

// Requests sent to server and waiting for their answer.
uint32_t in_flight(const radius_server *server)
{
    uint32_t n = 0;
    struct list_head *const queues[] = {&request_queue_header, &fail_queue_header};
    for (struct list_head *queue : queues) {
        struct list_head *pos;
        list_for_each(pos, queue)
            if (node_server(list_entry(pos, struct accounting_node, queue)->self) == server)
                n++;
    }
    return n;
}

bool waits_behind(const struct accounting_node *node)
{
    // An older request of the profile on the backlog goes first.
    struct list_head *pos;
    list_for_each(pos, &backlog_header) {
        auto *older = list_entry(pos, struct accounting_node, queue);
        if (older == node)
            return false;
        if (older->self->acct_radius == node->self->acct_radius)
            return true;
    }
    return false;
}

time_t interval(uint32_t probes)
{
    time_t t = PROBE_FIRST, cap = PROBE_CAP;
    for (uint32_t k = 1; k < probes && t < cap; k++)
        t *= 2;
    return t < cap ? t : cap;
}

void fill_random(unsigned char *out, size_t n)
{
    if (getrandom(out, n, GRND_NONBLOCK) == static_cast<ssize_t>(n))
        return;
    // No entropy yet at boot: an authenticator need only be unpredictable
    // enough not to repeat, which the time and a count give.
    static uint32_t count;
    uint32_t seed[2] = {static_cast<uint32_t>(mtr_time()), ++count};
    unsigned char digest[16];
    MD5_CTX ctx;
    pra_MD5Init(&ctx);
    pra_MD5Update(&ctx, reinterpret_cast<unsigned char *>(seed), sizeof seed);
    pra_MD5Final(digest, &ctx);
    memcpy(out, digest, n < sizeof digest ? n : sizeof digest);
}

void send_status_server(struct accounting_radius *radius, radius_server *server)
{
    unsigned char source;
    int id = identifier_take(&source);
    if (id < 0)
        return;  // every Identifier held: the next probe time tries again
    struct server_state *st = &server->state;
    fill_random(st->probe_vector, sizeof st->probe_vector);
    AUTH_HDR probe;
    status_server_msg(&probe, static_cast<uint8_t>(id), st->probe_vector, server->secret, radius->nas_id,
                      radius->nas_ip);
    st->probe_in_flight = radius_send_packet(server, source, &probe) == 0;
    st->probe_id = static_cast<uint8_t>(id);
    st->probe_source = source;
    st->probes++;
    st->unanswered++;
    TRACE("probe %u of accounting server %s\n", static_cast<unsigned>(st->probes), server->hostname);
}

}  // namespace

unsigned char servers_first(const struct accounting_radius *radius)
{
    if (!policy->keep_records) {
        if (radius->primary_server)
            return SERVER_PRIMARY;
        return radius->backup_server ? SERVER_BACKUP : SERVER_NONE;
    }
    if (usable(radius->primary_server))
        return SERVER_PRIMARY;
    return usable(radius->backup_server) ? SERVER_BACKUP : SERVER_NONE;
}

int servers_route(struct accounting_node *node)
{
    struct user_accounting_info *self = node->self;
    struct accounting_radius *radius = self->acct_radius;
    self->retry_count = 1;
    self->probing = 0;
    self->budget_since = mtr_time();
    // A profile without servers takes the design's road: its node is
    // dropped when it falls due.
    if (!radius || (!radius->primary_server && !radius->backup_server))
        return 1;
    if (waits_behind(node))
        return 0;
    // A dead server that ignores Status-Server is asked by a request, one a
    // probe interval, which goes on to a live server if it is not answered.
    radius_server *const servers[] = {radius->primary_server, radius->backup_server};
    for (int k = 0; k < 2; k++) {
        radius_server *s = servers[k];
        if (s && s->state.dead && s->state.by_request) {
            s->state.by_request = 0;
            s->state.probes++;
            s->state.unanswered++;
            self->server = k == 0 ? SERVER_PRIMARY : SERVER_BACKUP;
            self->probing = 1;
            return 1;
        }
    }
    unsigned char which = servers_first(radius);
    if (which == SERVER_NONE)
        return 0;
    // Paced only while a backlog drains, so that a new request costs no
    // walk of the queues.
    if (!list_empty(&backlog_header)) {
        if (in_flight(which == SERVER_PRIMARY ? radius->primary_server : radius->backup_server) >= PACE)
            return 0;
    }
    self->server = which;
    return 1;
}

int servers_dead(radius_server *server, const struct user_accounting_info *self)
{
    struct server_state *st = &server->state;
    if (st->dead)
        return 1;
    if (st->last_answer >= self->budget_since)
        return 0;
    st->dead = 1;
    st->since = mtr_time();
    st->unanswered = 0;
    st->by_request = 0;
    st->next_probe = st->since + PROBE_FIRST;
    TRACE("accounting server %s is dead\n", server->hostname);
    return 1;
}

void servers_live(radius_server *server)
{
    struct server_state *st = &server->state;
    st->last_answer = mtr_time();
    st->probe_in_flight = 0;
    st->unanswered = 0;
    st->by_request = 0;
    if (!st->dead)
        return;
    st->dead = 0;
    st->since = mtr_time();
    TRACE("accounting server %s is live\n", server->hostname);
}

time_t servers_probe(time_t now)
{
    time_t next = 0;
    each_server([&](struct accounting_radius *radius, radius_server *s, const char *) {
        struct server_state *st = &s->state;
        if (!st->dead)
            return;
        if (st->next_probe <= now) {
            if (st->unanswered >= PROBES_BEFORE_REQUEST)
                st->by_request = 1;
            send_status_server(radius, s);
            st->next_probe = now + interval(st->probes + 1);
        }
        if (next == 0 || st->next_probe < next)
            next = st->next_probe;
    });
    return next;
}

int servers_probe_answer(AUTH_HDR *response, const struct radius_datagram *d, bool *revived)
{
    int source = d ? d->source : 0;
    radius_server *found = nullptr;
    each_server([&](struct accounting_radius *, radius_server *s, const char *) {
        const struct server_state *st = &s->state;
        if (!found && st->probe_in_flight && st->probe_id == response->id && st->probe_source == source &&
            (!d || (d->from.sin_addr.s_addr == s->acct_ip.s_addr &&
                    ntohs(d->from.sin_port) == static_cast<uint16_t>(s->acct_port))))
            found = s;
    });
    if (!found)
        return 0;
    TRACE("Receive answer to the probe of %s\n", found->hostname);
    // A Status-Server to an accounting port is answered by an
    // Accounting-Response; anything else, or a forgery, changes nothing.
    if (response->code != RADIUS_CODE_ACCOUNTING_RESPONSE) {
        client_stats_probe(d, response, STATS_UNKNOWN_TYPE);
        return 1;
    }
    AUTH_HDR request;
    memcpy(request.vector, found->state.probe_vector, sizeof request.vector);
    if (verify_packet(found->secret, response, &request) == -1) {
        client_stats_probe(d, response, STATS_BAD_AUTHENTICATOR);
        return 1;
    }
    client_stats_probe(d, response, STATS_ANSWER);
    found->state.probe_answers++;
    *revived = found->state.dead;
    servers_live(found);
    return 1;
}

size_t servers_report(char *out, size_t size)
{
    size_t n = 0;
    out[0] = '\0';
    each_server([&](struct accounting_radius *radius, radius_server *s, const char *which) {
        const struct server_state *st = &s->state;
        report_put(out, size, &n, "state %s %s %s %d dead %d since %ld probes %u probe_answers %u\n",
            radius->interface[0] ? radius->interface : "-", which, s->hostname[0] ? s->hostname : "-",
            s->acct_port, st->dead, static_cast<long>(st->since), st->probes, st->probe_answers);
    });
    size_t length = 0;
    time_t oldest = 0;
    struct list_head *pos;
    list_for_each(pos, &backlog_header) {
        const struct user_accounting_info *self = list_entry(pos, struct accounting_node, queue)->self;
        if (length++ == 0)
            oldest = self->event_time;
    }
    time_t now = mtr_time();
    report_put(out, size, &n, "backlog length %zu oldest_age %ld\n", length, length ? static_cast<long>(now - oldest) : 0L);
    return n;
}
