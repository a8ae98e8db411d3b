// Delivery counters of the RADIUS client, per server.
#include "radius/client_stats.h"

#include <arpa/inet.h>
#include <time.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "radius/radius_send_recieve.h"

namespace {

enum { OTHER = CLIENT_STATS_SERVERS };

struct client_stats_row rows[CLIENT_STATS_SERVERS + 1];
int used;  // rows of their own so far

// Monotonic milliseconds, wrapping: only differences are read.
uint32_t now_ms()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint32_t>(static_cast<uint64_t>(ts.tv_sec) * 1000 +
                                 static_cast<uint64_t>(ts.tv_nsec) / 1000000);
}

// The row of a server (port in host order) that has one, or NULL.
struct client_stats_row *find_row(struct in_addr addr, uint16_t port)
{
    for (int i = 0; i < used; i++)
        if (rows[i].addr.s_addr == addr.s_addr && rows[i].port == port)
            return &rows[i];
    return nullptr;
}

// The row of a server; a new one only for a server that is sent to, so that
// strangers' datagrams cannot take the table.
struct client_stats_row *row_of(const struct sockaddr_in *at, bool sent_to)
{
    uint16_t port = ntohs(at->sin_port);
    if (struct client_stats_row *row = find_row(at->sin_addr, port))
        return row;
    if (!sent_to || used == OTHER)
        return &rows[OTHER];
    rows[used].addr = at->sin_addr;
    rows[used].port = port;
    return &rows[used++];
}

// Shorter than the Length it states, or than a header (all that is known of
// a datagram refused unread): the design reads such a datagram all the same,
// with what the buffer held before.
bool malformed(const struct radius_datagram *d, const AUTH_HDR *response)
{
    ssize_t length = response ? ntohs(response->length) : ssize_t{RADIUS_HDR_LEN};
    return length < RADIUS_HDR_LEN || length > d->length;
}

// A datagram from d's sender, counted with what became of it (STATS_*);
// one that is malformed is counted as that whatever else it was.
void count_received(const struct radius_datagram *d, const AUTH_HDR *response, int outcome)
{
    if (!d || d->length < 0)
        return;
    struct client_stats_row *row = row_of(&d->from, false);
    row->responses++;
    if (malformed(d, response))
        row->malformed++;
    else if (outcome == STATS_BAD_AUTHENTICATOR)
        row->bad_authenticators++;
    else if (outcome == STATS_UNKNOWN_TYPE)
        row->unknown_types++;
    else if (outcome == STATS_DROPPED || outcome == STATS_MALFORMED)
        row->dropped++;
}

uint32_t pending[CLIENT_STATS_SERVERS + 1];

void count_waiting(const struct user_accounting_info *self)
{
    if (self->sent_to)
        pending[self->sent_to - 1]++;
}

// Pending is read off the requests in flight when asked, not counted up
// and down: no way of leaving the request queue can make it drift.
void count_pending()
{
    memset(pending, 0, sizeof pending);
    radius_client()->each_waiting(count_waiting);
    for (int i = 0; i <= OTHER; i++)
        rows[i].pending = pending[i];
}


}  // namespace

void report_put(char *out, size_t size, size_t *n, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int k = vsnprintf(out + *n, size - *n, fmt, ap);
    va_end(ap);
    if (k > 0)
        *n += static_cast<size_t>(k) < size - *n ? static_cast<size_t>(k) : size - *n - 1;
}

void client_stats_sent(struct user_accounting_info *self, const struct sockaddr_in *to)
{
    struct client_stats_row *row = row_of(to, true);
    unsigned char index = static_cast<unsigned char>(row - rows + 1);
    if (self->sent_to == index)
        row->retransmissions++;
    else
        row->requests++;
    self->sent_to = index;
    self->sent_ms = now_ms();
}

void client_stats_timeout(const struct user_accounting_info *self)
{
    if (self->sent_to)
        rows[self->sent_to - 1].timeouts++;
}

void client_stats_refused(const struct radius_datagram *d, const AUTH_HDR *response, int reason)
{
    count_received(d, response, reason);
}

void client_stats_answered(const struct radius_datagram *d, const AUTH_HDR *response,
                           const struct user_accounting_info *self)
{
    if (!d)
        return;
    struct client_stats_row *row = row_of(&d->from, false);
    row->responses++;
    if (response->code != 5)
        row->unknown_types++;
    // Whichever copy was answered, the bytes were the same: timed from the last.
    if (self->sent_to)
        rows[self->sent_to - 1].round_trip_ms = now_ms() - self->sent_ms;
}

void client_stats_probe(const struct radius_datagram *d, const AUTH_HDR *response, int outcome)
{
    count_received(d, response, outcome);
}

int client_stats_of(struct in_addr addr, uint16_t port, struct client_stats_row *out)
{
    const struct client_stats_row *row = find_row(addr, port);
    if (!row)
        return -1;
    count_pending();
    *out = *row;
    return 0;
}

size_t client_stats_report(char *out, size_t size)
{
    count_pending();
    size_t n = 0;
    out[0] = '\0';
    static const struct client_stats_row none = {};
    for (int i = 0; i <= OTHER; i++) {
        const struct client_stats_row *r = &rows[i];
        char addr[INET_ADDRSTRLEN];
        if (i < used)
            report_put(out, size, &n, "server %s %u", inet_ntop(AF_INET, &r->addr, addr, sizeof addr),
                static_cast<unsigned>(r->port));
        else if (i == OTHER && memcmp(r, &none, sizeof none) != 0)
            report_put(out, size, &n, "server other 0");
        else
            continue;
        report_put(out, size, &n,
            " requests %u retransmissions %u responses %u malformed %u bad_authenticators %u"
            " unknown_types %u dropped %u pending %u timeouts %u round_trip_ms %u\n",
            r->requests, r->retransmissions, r->responses, r->malformed, r->bad_authenticators,
            r->unknown_types, r->dropped, r->pending, r->timeouts, r->round_trip_ms);
    }
    return n;
}

void client_stats_clear(void)
{
    memset(rows, 0, sizeof rows);
    used = 0;
}
