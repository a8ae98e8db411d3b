// RADIUS over TLS (meterd -T): one TCP connection with TLS per server,
// opened when a packet first needs it and kept. The transport's own thread
// owns the sockets: it connects and shakes hands without blocking, writes
// each packet in a record of its own, reads the answers by their Length and
// hands them to the client as the UDP receiver does. Senders, under `mutex`,
// only queue a packet and wake the thread, so that no handshake or slow
// server ever holds the global lock.
//
// Numbers:
//  - connect and handshake together get HANDSHAKE_MS; a failed open
//    (refused, timed out, certificate refused) makes the next one wait
//    RECONNECT_FIRST seconds, doubling up to RECONNECT_CAP, and every packet
//    for that server is refused meanwhile (it waits for its time-out and the
//    delivery engine's failover). A connection that was up and ends is
//    opened again at once when next needed.
//  - a connection on which nothing arrived for WATCHDOG_IDLE seconds sends a
//    Status-Server; unanswered after WATCHDOG_WAIT seconds, the connection
//    is taken for dead and closed. It also keeps FreeRADIUS, which closes a
//    connection after 30 idle seconds, from closing ours.
//    After IDLE_CLOSE seconds without a packet of the client's, the
//    connection is closed instead (a server left by the profiles is not
//    kept alive for ever); the next packet opens it again.
//  - a request unanswered within its time-out closes the connection it
//    went out on; its retransmission goes on a new one (or to the backup).
//
// Lock order: `mutex`, then tls_lock. The thread never holds tls_lock while
// it takes `mutex`.
#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "database/profiles.h"
#include "frame/console.h"
#include "frame/memory.h"
#include "radius/client_stats.h"
#include "radius/radius_msg.h"
#include "radius/radius_send_recieve.h"
#include "radius/radius_stream.h"
#include "radius/tls.h"
#include "radius/tls_config.h"
#include "radius/transport.h"

namespace {

enum {
    CONNECTIONS = 16,       // servers with a connection; more are refused
    OUT_BYTES = 64 * 1024,  // queued packets of one connection
    HANDSHAKE_MS = 4000,    // TCP connect and TLS handshake
    RECONNECT_FIRST = 1,    // seconds
    RECONNECT_CAP = 60,
    WATCHDOG_IDLE = 20,
    WATCHDOG_WAIT = RADIUS_TIME_OUT,
    IDLE_CLOSE = 300,  // seconds without a packet of the client: the watchdog stops keeping it
    TICK_MS = 1000,  // the thread looks at its deadlines at least this often
};

enum conn_state { CLOSED, CONNECTING, HANDSHAKE, UP };

struct connection {
    // The server, as the profiles name it; set by senders under tls_lock.
    char host[64];
    int acct_port;
    struct in_addr ip;

    // Under tls_lock.
    conn_state state;
    uint32_t epoch;           // +1 at every close: which connection a packet went out on
    uint32_t sent_epoch[256];  // per Identifier, the epoch it last went out in
    bool close_asked;          // a request went unanswered on this epoch
    time_t retry_at;           // no open before this second (after a failed one)
    time_t used;               // the last second a packet of the client was queued
    time_t wait;               // the next failed open's wait
    size_t out_len;            // bytes of whole packets queued in out
    uint8_t out[OUT_BYTES];
    char version[16], cipher[64];
    uint32_t opened, handshake_failures, certificate_refusals, lost, bad_lengths, watchdogs;

    // The thread's alone.
    struct in_addr peer;  // ip when the connection was opened
    int fd;
    struct tls_conn *tls;
    long deadline_ms;   // of the open under way
    short handshake_wants;  // POLLIN or POLLOUT, as the handshake last asked
    time_t heard;       // the last second something arrived
    bool watchdog;      // a Status-Server waits for its answer
    uint8_t watchdog_id;
    unsigned char watchdog_vector[16];
    time_t watchdog_deadline;
    struct radius_stream stream;
};

struct tls_config config;
struct tls_context *context;
pthread_mutex_t tls_lock = PTHREAD_MUTEX_INITIALIZER;
struct connection *table[CONNECTIONS];
int count;       // connections in the table, under tls_lock
int wake = -1;   // eventfd: a sender queued something or asked for a close

long now_ms()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000L + ts.tv_nsec / 1000000L;
}

// Seconds of the same clock: the waits must not follow the wall clock.
time_t now_s()
{
    return static_cast<time_t>(now_ms() / 1000);
}

void poke()
{
    uint64_t one = 1;
    ssize_t n = write(wake, &one, sizeof one);
    (void)n;  // a full counter wakes the thread all the same
}

// The connection of a server, made on first use; when the table is full,
// in the place of a closed one (a server the profiles may have left). Under
// tls_lock.
struct connection *connection_of(const radius_server *server)
{
    for (int i = 0; i < count; i++)
        if (table[i]->acct_port == server->acct_port && strcmp(table[i]->host, server->hostname) == 0)
            return table[i];
    struct connection *c = nullptr;
    for (int i = 0; i < count && !c; i++)
        if (count == CONNECTIONS && table[i]->state == CLOSED && table[i]->out_len == 0)
            c = table[i];
    if (c) {
        memset(c, 0, sizeof *c);
    } else {
        if (count == CONNECTIONS)
            return nullptr;
        c = static_cast<struct connection *>(mtr_calloc(1, sizeof(struct connection)));
        if (!c)
            return nullptr;
        table[count++] = c;
    }
    snprintf(c->host, sizeof c->host, "%s", server->hostname);
    c->acct_port = server->acct_port;
    c->fd = -1;
    c->wait = RECONNECT_FIRST;
    return c;
}

ssize_t tls_send(radius_server *server, int, const void *packet, size_t len, const struct sockaddr_in *to)
{
    pthread_mutex_lock(&tls_lock);
    struct connection *c = connection_of(server);
    ssize_t result = -1;
    if (c)
        c->ip = to->sin_addr;
    if (!c)
        errno = ENOMEM;
    else if (c->state == CLOSED && now_s() < c->retry_at)
        errno = ECONNREFUSED;  // waits for its time-out, as a lost datagram would
    else if (len < RADIUS_HDR_LEN || len > sizeof c->out - c->out_len)
        errno = ENOBUFS;
    else {
        memcpy(c->out + c->out_len, packet, len);
        c->out_len += len;
        c->used = now_s();
        c->sent_epoch[static_cast<const uint8_t *>(packet)[1]] = c->epoch;
        result = static_cast<ssize_t>(len);
    }
    pthread_mutex_unlock(&tls_lock);
    if (result > 0)
        poke();
    return result;
}

void tls_timeout(const struct user_accounting_info *self)
{
    const radius_server *server = node_server(self);
    if (!server || !self->request)
        return;
    pthread_mutex_lock(&tls_lock);
    for (int i = 0; i < count; i++) {
        struct connection *c = table[i];
        if (c->acct_port == server->acct_port && strcmp(c->host, server->hostname) == 0 &&
            c->state != CLOSED && c->sent_epoch[self->request->id] == c->epoch)
            c->close_asked = true;
    }
    pthread_mutex_unlock(&tls_lock);
    poke();
}

void tls_report(char *out, size_t size, size_t *n)
{
    pthread_mutex_lock(&tls_lock);
    for (int i = 0; i < count; i++) {
        const struct connection *c = table[i];
        report_put(out, size, n,
                   "transport %s %d tls tls_port %u up %d version %s cipher %s opened %u handshake_failures %u "
                   "certificate_refusals %u lost %u bad_lengths %u watchdogs %u\n",
                   inet_ntoa(c->ip), c->acct_port, static_cast<unsigned>(config.port), c->state == UP ? 1 : 0,
                   c->version[0] ? c->version : "-", c->cipher[0] ? c->cipher : "-", c->opened,
                   c->handshake_failures, c->certificate_refusals, c->lost, c->bad_lengths, c->watchdogs);
    }
    pthread_mutex_unlock(&tls_lock);
}

// --- the thread -------------------------------------------------------------

enum shut_reason { SHUT_LOST, SHUT_FAILED, SHUT_IDLE };

// Ends c's socket. Under tls_lock. A failed open waits before the next one;
// what was queued goes with the connection, its requests to their time-outs.
void shut(struct connection *c, enum shut_reason why)
{
    if (c->tls)
        tls_conn_free(c->tls);
    if (c->fd >= 0)
        close(c->fd);
    c->tls = nullptr;
    c->fd = -1;
    if (c->state == UP && why != SHUT_IDLE)
        c->lost++;
    c->state = CLOSED;
    c->epoch++;
    c->out_len = 0;
    c->close_asked = false;
    c->watchdog = false;
    if (why == SHUT_FAILED) {
        c->retry_at = now_s() + c->wait;
        c->wait = c->wait * 2 < RECONNECT_CAP ? c->wait * 2 : time_t{RECONNECT_CAP};
    }
}

// An open that did not come to a connection: one console line, whatever
// debug says, naming the server and the reason (never anything it carried).
void open_failed(struct connection *c, enum tls_result r, const char *reason)
{
    if (r == TLS_CERT_REFUSED)
        c->certificate_refusals++;
    else
        c->handshake_failures++;
    console_write("RADIUS/TLS to %s port %u: %s: %s\n", c->host, static_cast<unsigned>(config.port),
                  tls_result_name(r), reason);
    shut(c, SHUT_FAILED);
}

void start_open(struct connection *c)
{
    struct sockaddr_in to;
    memset(&to, 0, sizeof to);
    to.sin_family = AF_INET;
    to.sin_addr = c->peer = c->ip;
    to.sin_port = htons(config.port);
    c->fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (c->fd < 0 || (connect(c->fd, reinterpret_cast<struct sockaddr *>(&to), sizeof to) < 0 &&
                      errno != EINPROGRESS)) {
        open_failed(c, TLS_FAILED, strerror(errno));
        return;
    }
    c->state = CONNECTING;
    c->deadline_ms = now_ms() + HANDSHAKE_MS;
    radius_stream_reset(&c->stream);
}

void step_handshake(struct connection *c)
{
    enum tls_result r = tls_handshake(c->tls, 0);
    if (r == TLS_WANT_READ || r == TLS_WANT_WRITE) {
        c->handshake_wants = r == TLS_WANT_READ ? POLLIN : POLLOUT;
        return;
    }
    if (r != TLS_OK) {
        open_failed(c, r, tls_conn_reason(c->tls));
        return;
    }
    c->state = UP;
    c->opened++;
    c->wait = RECONNECT_FIRST;
    c->heard = now_s();
    snprintf(c->version, sizeof c->version, "%s", tls_conn_version(c->tls));
    snprintf(c->cipher, sizeof c->cipher, "%s", tls_conn_cipher(c->tls));
    TRACE("RADIUS/TLS to %s port %u up: %s %s\n", c->host, static_cast<unsigned>(config.port), c->version,
          c->cipher);
}

void step_connect(struct connection *c)
{
    int err = 0;
    socklen_t len = sizeof err;
    struct pollfd p = {c->fd, POLLOUT, 0};
    if (poll(&p, 1, 0) != 1)
        return;
    if (getsockopt(c->fd, SOL_SOCKET, SO_ERROR, &err, &len) < 0 || err) {
        open_failed(c, TLS_FAILED, strerror(err ? err : errno));
        return;
    }
    c->tls = tls_conn_new(context, c->fd, c->host);
    if (!c->tls) {
        open_failed(c, TLS_FAILED, "out of memory");
        return;
    }
    c->state = HANDSHAKE;
    step_handshake(c);
}

// Writes what is queued, a packet a record. Under tls_lock.
void flush(struct connection *c)
{
    while (c->state == UP && c->out_len >= RADIUS_HDR_LEN) {
        size_t len = static_cast<size_t>(c->out[2]) << 8 | c->out[3];
        enum tls_result r = tls_write_packet(c->tls, c->out, len);
        if (r == TLS_WANT_WRITE || r == TLS_WANT_READ)
            return;
        if (r != TLS_OK) {
            // A server that refuses our certificate under TLS 1.3 says so only now.
            if (r == TLS_PEER_REFUSED)
                open_failed(c, r, tls_conn_reason(c->tls));
            else
                shut(c, SHUT_LOST);
            return;
        }
        memmove(c->out, c->out + len, c->out_len - len);
        c->out_len -= len;
    }
}

struct delivery {
    struct connection *c;
    int answers;
};

// A whole packet from the stream: the watchdog's answer, or one for the client.
void packet_in(void *ctx, const uint8_t *pkt, size_t n)
{
    auto *d = static_cast<struct delivery *>(ctx);
    struct connection *c = d->c;
    static AUTH_HDR response;
    memset(&response, 0, sizeof response);
    memcpy(&response, pkt, n < size_t{RADIUS_RECV_LEN} ? n : size_t{RADIUS_RECV_LEN});
    if (c->watchdog && response.id == c->watchdog_id && response.code == RADIUS_CODE_ACCOUNTING_RESPONSE) {
        AUTH_HDR request;
        memcpy(request.vector, c->watchdog_vector, sizeof request.vector);
        if (verify_packet(config.secret, &response, &request) == 0) {
            c->watchdog = false;
            return;
        }
    }
    struct radius_datagram from;
    memset(&from, 0, sizeof from);
    from.from.sin_family = AF_INET;
    from.from.sin_addr = c->peer;
    from.from.sin_port = htons(static_cast<uint16_t>(c->acct_port));
    from.length = static_cast<ssize_t>(n);
    d->answers++;
    radius_response_input(&response, &from);
}

// Reads what arrived and hands each packet on; tls_lock is not held, as
// the client takes `mutex`. false when the connection is to be closed:
// *failed when as a refusal, *bad when its stream lost its boundaries.
bool read_all(struct connection *c, bool *failed, bool *bad, enum tls_result *why)
{
    uint8_t buf[4096];
    struct delivery d = {c, 0};
    for (;;) {
        size_t got = 0;
        enum tls_result r = tls_read(c->tls, buf, sizeof buf, &got);
        if (r == TLS_WANT_READ || r == TLS_WANT_WRITE)
            return true;
        if (r != TLS_OK) {
            *failed = r == TLS_PEER_REFUSED;
            *why = r;
            return false;
        }
        c->heard = now_s();
        if (radius_stream_input(&c->stream, buf, got, packet_in, &d) != 0) {
            *bad = true;
            return false;
        }
    }
}

// A Status-Server on a connection that has been quiet: its Identifier comes
// from the client's allocator, so that no request meets it.
void send_watchdog(struct connection *c)
{
    unsigned char source = 0;
    pthread_mutex_lock(&mutex);
    int id = radius_client()->take_identifier(&source);
    if (id >= 0)
        radius_client()->hold_identifier(source, static_cast<uint8_t>(id));
    pthread_mutex_unlock(&mutex);
    if (id < 0)
        return;  // every Identifier is in flight: the connection is hardly idle
    if (getrandom(c->watchdog_vector, sizeof c->watchdog_vector, GRND_NONBLOCK) != sizeof c->watchdog_vector)
        for (size_t k = 0; k < sizeof c->watchdog_vector; k++)
            c->watchdog_vector[k] = static_cast<unsigned char>(now_ms() >> (k % 8));
    struct sockaddr_in local;
    socklen_t len = sizeof local;
    memset(&local, 0, sizeof local);
    getsockname(c->fd, reinterpret_cast<struct sockaddr *>(&local), &len);
    AUTH_HDR probe;
    status_server_msg(&probe, static_cast<uint8_t>(id), c->watchdog_vector, config.secret, nullptr,
                      local.sin_addr);
    size_t n = ntohs(probe.length);
    pthread_mutex_lock(&tls_lock);
    if (c->state == UP && n <= sizeof c->out - c->out_len) {
        memcpy(c->out + c->out_len, &probe, n);
        c->out_len += n;
        c->watchdog = true;
        c->watchdog_id = static_cast<uint8_t>(id);
        c->watchdog_deadline = now_s() + WATCHDOG_WAIT;
        c->watchdogs++;
        flush(c);
    }
    pthread_mutex_unlock(&tls_lock);
}

// One pass over c after poll: the open under way, reads, writes, deadlines.
void serve(struct connection *c, short revents)
{
    pthread_mutex_lock(&tls_lock);
    if (c->close_asked) {
        TRACE("RADIUS/TLS to %s: a request went unanswered, connection closed\n", c->host);
        shut(c, SHUT_LOST);
    }
    if (c->state == CLOSED && c->out_len == 0) {
        // nothing to do
    } else if (c->state == CLOSED && now_s() >= c->retry_at) {
        start_open(c);
    }
    if (c->state == CONNECTING)
        step_connect(c);
    else if (c->state == HANDSHAKE && revents)
        step_handshake(c);
    if ((c->state == CONNECTING || c->state == HANDSHAKE) && now_ms() >= c->deadline_ms)
        open_failed(c, TLS_TIMEOUT, "no connection within the time");
    flush(c);
    bool up = c->state == UP;
    pthread_mutex_unlock(&tls_lock);
    if (!up)
        return;

    bool failed = false, bad = false;
    enum tls_result why = TLS_CLOSED;
    bool keep = read_all(c, &failed, &bad, &why);
    time_t now = now_s();
    pthread_mutex_lock(&tls_lock);
    if (c->state == UP && !keep) {
        if (bad) {
            c->bad_lengths++;
            console_write("RADIUS/TLS to %s: a packet Length out of range, connection closed\n", c->host);
        }
        if (failed)
            open_failed(c, why, tls_conn_reason(c->tls));
        else
            shut(c, SHUT_LOST);
    } else if (c->state == UP && c->watchdog && now >= c->watchdog_deadline) {
        TRACE("RADIUS/TLS to %s: watchdog unanswered, connection closed\n", c->host);
        shut(c, SHUT_LOST);
    }
    if (c->state == UP && !c->watchdog && c->out_len == 0 && now - c->used >= IDLE_CLOSE) {
        TRACE("RADIUS/TLS to %s: unused, connection closed\n", c->host);
        shut(c, SHUT_IDLE);
    }
    bool quiet = c->state == UP && !c->watchdog && c->out_len == 0 && now - c->heard >= WATCHDOG_IDLE;
    pthread_mutex_unlock(&tls_lock);
    if (quiet)
        send_watchdog(c);
}

// What c waits for on its socket now, 0 for nothing. Under tls_lock.
short wanted(const struct connection *c)
{
    switch (c->state) {
    case CONNECTING:
        return POLLOUT;
    case HANDSHAKE:
        return c->handshake_wants;
    case UP:
        return static_cast<short>(POLLIN | (c->out_len ? POLLOUT : 0));
    default:
        return 0;
    }
}

void *tls_receive(void *)
{
    for (;;) {
        struct pollfd fds[CONNECTIONS + 1];
        struct connection *of[CONNECTIONS + 1];
        int n = 0;
        fds[n] = {wake, POLLIN, 0};
        of[n++] = nullptr;
        pthread_mutex_lock(&tls_lock);
        int total = count;
        for (int i = 0; i < count; i++) {
            short events = wanted(table[i]);
            if (events) {
                fds[n] = {table[i]->fd, events, 0};
                of[n++] = table[i];
            }
        }
        pthread_mutex_unlock(&tls_lock);
        int ready = poll(fds, static_cast<nfds_t>(n), TICK_MS);
        if (ready > 0 && (fds[0].revents & POLLIN)) {
            uint64_t drained;
            ssize_t got = read(wake, &drained, sizeof drained);
            (void)got;
        }
        for (int i = 0; i < total; i++) {
            short revents = 0;
            for (int k = 1; k < n; k++)
                if (of[k] == table[i])
                    revents = fds[k].revents;
            serve(table[i], revents);
        }
    }
    return nullptr;
}

int tls_init(bool)
{
    // Identifiers are unique per connection: one socket's worth (256) in
    // flight, and no UDP socket at all.
    radius_source_limit = 1;
    wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (wake < 0) {
        fprintf(stderr, "meterd: TLS: %s\n", strerror(errno));
        return -1;
    }
    return 0;
}

const struct radius_transport tls_transport = {tls_init, tls_send, tls_receive, tls_timeout, tls_report};

}  // namespace

int radius_transport_tls(const char *file, char *error, size_t error_size)
{
    if (tls_config_load(file, &config, error, error_size) != 0)
        return -1;
    context = tls_context_new(&config, error, error_size);
    if (!context)
        return -1;
    radius_transport = &tls_transport;
    shared_server_secret = config.secret;
    return 0;
}
