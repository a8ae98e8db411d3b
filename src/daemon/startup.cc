// Start-up of the daemon: mode, options, sockets, pid file, lock, threads.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "daemon/control.h"
#include "daemon/startup.h"
#include "database/portal_users.h"
#include "delivery/lookups.h"
#include "delivery/policy.h"
#include "delivery/scheduler.h"
#include "delivery/transaction.h"
#include "events/portal_events.h"
#include "events/station_events.h"
#include "events/uam_events.h"
#include "frame/console.h"
#include "frame/meterd.h"
#include "platform/platform.h"
#include "radius/radius_send_recieve.h"
#include "radius/tls_config.h"
#include "radius/transport.h"

namespace {

struct thread_entry {
    void *(*run)(void *);
    bool cloud_only;
};

// Started in this order and joined in it; the last two only in cloud mode.
const thread_entry thread_table[] = {
    {radius_transport_thread, false},
    {do_scheduler, false},
    {do_event_handler_ovat, false},
    {do_event_handler_station_on_off, false},
    {do_uam_event_handler, true},
    {portal_event_handler_ovat, true},
};

void option_debug()
{
    debug.store(1, std::memory_order_relaxed);
}

const char *tls_file = nullptr;  // meterd -T

void option_tls()
{
    tls_file = optarg;
}

// The options of meterd, one letter each; getopt's option string is made
// from this table, so a new option is one more line here. An option either
// runs its function (which finds its argument, if it takes one, in optarg)
// or turns extensions on.
struct option_entry {
    char letter;
    void (*take)();
    unsigned extension;
    bool argument;
};

const option_entry option_table[] = {
    {'d', option_debug, 0, false},       // console diagnostics from the start
    {'s', console_to_syslog, 0, false},  // console lines to syslog instead of /dev/console
    {'x', nullptr, EXT_ALL, false},      // every extension below
    {'g', nullptr, EXT_GIGAWORDS, false},
    {'i', nullptr, EXT_UNIQUE_IDS, false},
    {'r', nullptr, EXT_RETRY_PER_REQUEST, false},
    {'c', nullptr, EXT_STEADY_COUNTERS, false},
    {'k', nullptr, EXT_KEEP_RECORDS, false},
    {'l', nullptr, EXT_LOOKUPS, false},
    {'T', option_tls, 0, true},  // RADIUS over TLS, set up by the file named
};

const size_t option_count = sizeof option_table / sizeof option_table[0];

}  // namespace

int meterd_main(int argc, char **argv)
{
    set_operating_mode(merra_wlan_get_hybridmode());
    debug.store(0, std::memory_order_relaxed);
    rrm_get_common_mac(global_ap_mac, sizeof global_ap_mac);
    global_ap_mac[sizeof global_ap_mac - 1] = '\0';
    trimnewline(global_ap_mac);

    char letters[2 * option_count + 1] = {};
    size_t k = 0;
    for (const option_entry &o : option_table) {
        letters[k++] = o.letter;
        if (o.argument)
            letters[k++] = ':';
    }
    unsigned extensions = 0;
    int opt;
    while ((opt = getopt(argc, argv, letters)) != -1)
        for (const option_entry &o : option_table) {
            if (opt != o.letter)
                continue;
            if (o.take)
                o.take();
            extensions |= o.extension;
        }
    if (debug.load(std::memory_order_relaxed))
        fprintf(stderr, "meterd enters debugging mode...\n");

    if (tls_file) {
        // Before any thread: a bad file is the whole answer.
        char error[TLS_CONFIG_ERROR];
        if (radius_transport_tls(tls_file, error, sizeof error) != 0) {
            fprintf(stderr, "%s\n", error);
            return 1;
        }
        // One connection carries every request to its server: an answer
        // can tell its request by Identifier alone only if none repeats.
        extensions |= EXT_UNIQUE_IDS;
    }
    policy_choose(extensions);

    if (radius_transport->init(policy->unique_ids) == -1) {
        fprintf(stderr, "meter-daemon init failed!(radius socket init fail)\n");
        fprintf(stderr, "Meter-Daemon is finished\n");
        return -1;
    }
    transaction_init();
    if (init_meterd_db() == -1) {
        fprintf(stderr, "meter-daemon init failed!(accounting database init fail)\n");
        fprintf(stderr, "Meter-Daemon is finished\n");
        return -1;
    }
    notify_flush_all();
    mtrd_write_pid(METERD_PID_FILE);
    pthread_mutex_init(&mutex, nullptr);
    if (policy->lookups && lookups_start() != 0) {
        fprintf(stderr, "pthread_create fail\n");
        abort();
    }

    pthread_t threads[sizeof thread_table / sizeof thread_table[0]];
    size_t started = 0;
    for (const thread_entry &t : thread_table) {
        if (t.cloud_only && !is_cloud)
            continue;
        if (pthread_create(&threads[started], nullptr, t.run, nullptr) != 0) {
            fprintf(stderr, "pthread_create fail\n");
            abort();  // a daemon without one of its threads is no daemon
        }
        started++;
    }
    for (size_t i = 0; i < started; i++)
        pthread_join(threads[i], nullptr);

    pthread_mutex_destroy(&mutex);
    pthread_exit(nullptr);
}
