// meterd -l: an Interim-Update's look-ups by workers, outside the lock.
#include "delivery/lookups.h"

#include <arpa/inet.h>
#include <pthread.h>
#include <time.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "database/mac_text.h"
#include "delivery/policy.h"
#include "delivery/transaction.h"
#include "frame/console.h"
#include "frame/meterd.h"
#include "platform/station_lookups.h"
#include "platform/station_probe.h"
#include "radius/client_stats.h"

struct list_head lookup_header = LIST_HEAD_INIT(lookup_header);

namespace {

// The node each worker is looking up, nullptr when idle. Under `mutex`.
struct accounting_node *running[LOOKUP_WORKERS];
uint32_t last_gen;
struct lookups_counts counts;
// Signalled, with `mutex`, when a node comes to lookup_header.
pthread_cond_t lookup_ready = PTHREAD_COND_INITIALIZER;

// The statistics database's calls cannot be interrupted, so each worker asks
// its own helper thread and waits no longer than the time-out. A helper
// still stuck in the database answers late to a request nobody waits for;
// its worker's next request waits behind it, within that look-up's own
// time-out, so that at most one thread a worker waits on a hung database,
// and none piles up.
struct counters_helper {
    pthread_mutex_t lock;
    pthread_cond_t cond;
    bool started;
    uint32_t asked, answered;  // the last request made, and the last answered
    char rrm_mac[MAC_TEXT_SIZE];
    conn_t result;
};
struct counters_helper helpers[LOOKUP_WORKERS];

void deadline_after(int ms, struct timespec *at)
{
    clock_gettime(CLOCK_MONOTONIC, at);
    long long ns = static_cast<long long>(at->tv_nsec) + static_cast<long long>(ms % 1000) * 1000000;
    at->tv_sec += ms / 1000 + static_cast<time_t>(ns / 1000000000);
    at->tv_nsec = static_cast<long>(ns % 1000000000);
}

void *counters_helper_run(void *arg)
{
    auto *h = static_cast<struct counters_helper *>(arg);
    pthread_mutex_lock(&h->lock);
    for (;;) {
        while (h->asked == h->answered)
            pthread_cond_wait(&h->cond, &h->lock);
        uint32_t request = h->asked;
        char mac[MAC_TEXT_SIZE];
        memcpy(mac, h->rrm_mac, sizeof mac);
        pthread_mutex_unlock(&h->lock);
        conn_t seen = {0, 0};
        station_counters(mac, &seen, policy->read_counter);
        pthread_mutex_lock(&h->lock);
        h->result = seen;
        h->answered = request;
        pthread_cond_broadcast(&h->cond);
    }
    return nullptr;
}

// Hands the MAC to the worker's helper, which takes it up as soon as it is
// done with any earlier one; the number to wait for.
uint32_t counters_ask(struct counters_helper *h, const char *rrm_mac)
{
    pthread_mutex_lock(&h->lock);
    copy_text(h->rrm_mac, sizeof h->rrm_mac, rrm_mac);
    uint32_t request = ++h->asked;
    pthread_cond_broadcast(&h->cond);
    pthread_mutex_unlock(&h->lock);
    return request;
}

bool counters_wait(struct counters_helper *h, uint32_t request, const struct timespec *until, conn_t *out)
{
    pthread_mutex_lock(&h->lock);
    int err = 0;
    while (h->answered != request && err != ETIMEDOUT)
        err = pthread_cond_timedwait(&h->cond, &h->lock, until);
    bool done = h->answered == request;
    if (done)
        *out = h->result;
    pthread_mutex_unlock(&h->lock);
    return done;
}

bool is_running(const struct accounting_node *node)
{
    for (const struct accounting_node *r : running)
        if (r == node)
            return true;
    return false;
}

// The address as whal_getip gives it, with its traces, from ovat without a
// shell and within the time-out.
int look_up_address(const char *mac, struct in_addr *ip, bool *timed_out, bool *killed)
{
    struct lookup_outcome how;
    int found = station_address_lookup(mac, ip, STATION_LOOKUP_TIMEOUT_MS, &how);
    *timed_out = how.result == LOOKUP_TIMED_OUT;
    *killed = how.result == LOOKUP_TIMED_OUT || how.result == LOOKUP_TOO_LARGE;
    if (how.line && how.result == LOOKUP_OK)
        TRACE("STA IP:%s\n", how.text);
    else if (how.line)
        TRACE("STA IP invaild:(%s)\n", how.text);
    return found;
}

void *worker_run(void *arg)
{
    int worker = static_cast<int>(reinterpret_cast<intptr_t>(arg));
    pthread_mutex_lock(&mutex);
    for (;;) {
        struct lookup_job job;
        while (!lookup_take(&job, worker))
            pthread_cond_wait(&lookup_ready, &mutex);
        pthread_mutex_unlock(&mutex);
        lookup_run(&job);
        pthread_mutex_lock(&mutex);
        lookup_finish(&job);
    }
    return nullptr;
}

// Sixteen threads that each hold a few kilobytes of buffers: glibc's default
// of 8 MiB of address space apiece is more than a small device may commit.
// musl's default is this size too.
constexpr size_t LOOKUP_STACK = 128 * 1024;

int start_detached(void *(*run)(void *), void *arg)
{
    pthread_attr_t attr;
    if (pthread_attr_init(&attr) != 0)
        return -1;
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_attr_setstacksize(&attr, LOOKUP_STACK);
    pthread_t t;
    int err = pthread_create(&t, &attr, run, arg);
    pthread_attr_destroy(&attr);
    return err == 0 ? 0 : -1;
}

}  // namespace

int lookups_start_helpers(void)
{
    for (struct counters_helper &helper : helpers) {
        struct counters_helper *h = &helper;
        if (h->started)
            continue;
        pthread_condattr_t attr;
        pthread_condattr_init(&attr);
        pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
        pthread_mutex_init(&h->lock, nullptr);
        pthread_cond_init(&h->cond, &attr);
        pthread_condattr_destroy(&attr);
        if (start_detached(counters_helper_run, h) != 0)
            return -1;
        h->started = true;
    }
    return 0;
}

int lookups_start(void)
{
    if (lookups_start_helpers() != 0)
        return -1;
    for (int i = 0; i < LOOKUP_WORKERS; i++)
        if (start_detached(worker_run, reinterpret_cast<void *>(static_cast<intptr_t>(i))) != 0)
            return -1;
    return 0;
}

void lookups_begin(struct accounting_node *node)
{
    struct user_accounting_info *self = node->self;
    self->queue_type = QUEUE_TYPE_LOOKUP;
    self->lookup_gen = ++last_gen;
    list_move_tail(&node->queue, &lookup_header);
    pthread_cond_signal(&lookup_ready);
}

bool lookup_take(struct lookup_job *job, int worker)
{
    struct list_head *pos;
    list_for_each(pos, &lookup_header) {
        auto *node = list_entry(pos, struct accounting_node, queue);
        if (is_running(node))
            continue;
        running[worker] = node;
        memset(job, 0, sizeof *job);
        job->node = node;
        job->gen = node->self->lookup_gen;
        job->worker = worker;
        copy_text(job->mac, sizeof job->mac, node->self->user->user_mac);
        counts.started++;
        return true;
    }
    return false;
}

void lookup_run(struct lookup_job *job)
{
    char rrm_mac[MAC_TEXT_SIZE];
    memset(rrm_mac, 0, sizeof rrm_mac);
    change_mac_to_rrm_format(rrm_mac, job->mac);
    struct timespec until;
    deadline_after(STATION_LOOKUP_TIMEOUT_MS, &until);

    // The database is asked first, and answers while ovat runs.
    struct counters_helper *h = &helpers[job->worker];
    if (!h->started) {
        station_counters(rrm_mac, &job->counters, policy->read_counter);
        job->found = look_up_address(job->mac, &job->ip, &job->timed_out, &job->killed);
        job->counted = true;
    } else {
        uint32_t request = counters_ask(h, rrm_mac);
        job->found = look_up_address(job->mac, &job->ip, &job->timed_out, &job->killed);
        job->counted = counters_wait(h, request, &until, &job->counters);
        job->timed_out |= !job->counted;
    }
    if (job->timed_out)
        TRACE("STA %s look-up timed out\n", job->mac);
}

void lookup_finish(struct lookup_job *job)
{
    running[job->worker] = nullptr;
    counts.timed_out += job->timed_out;
    counts.killed += job->killed;
    struct accounting_node *node = nullptr;
    struct list_head *pos;
    list_for_each(pos, &lookup_header) {
        if (pos == &job->node->queue) {
            node = job->node;
            break;
        }
    }
    if (!node || node->self->lookup_gen != job->gen) {
        counts.gone++;
        return;
    }
    struct user_accounting_info *self = node->self;
    // A failed look-up keeps what the session knew (policy keep_address);
    // counters not read in time are no reading, and a pair with a zero is
    // none either.
    self->address_found = job->found != 0;
    if (job->found || !policy->keep_address)
        self->user->user_ip = job->ip;
    if (job->counted)
        policy->take_counters(self, &job->counters, false);
    transaction_resume(node);
}

int lookups_address_now(const char *mac, struct in_addr *ip)
{
    bool timed_out, killed;
    int found = look_up_address(mac, ip, &timed_out, &killed);
    counts.timed_out += timed_out;
    counts.killed += killed;
    return found;
}

void lookups_counts_of(struct lookups_counts *out)
{
    *out = counts;
    out->pending = 0;
    struct list_head *pos;
    list_for_each(pos, &lookup_header)
        out->pending++;
}

size_t lookups_report(char *out, size_t size)
{
    struct lookups_counts c;
    lookups_counts_of(&c);
    size_t n = 0;
    out[0] = '\0';
    report_put(out, size, &n, "lookups started %lu timed_out %lu killed %lu gone %lu pending %lu\n", c.started,
               c.timed_out, c.killed, c.gone, c.pending);
    return n;
}
