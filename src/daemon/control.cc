// The control channel, /tmp/accounting.sock.
#include "daemon/control.h"

#include <cstring>

#include "daemon/db_dump.h"
#include "delivery/lookups.h"
#include "delivery/policy.h"
#include "delivery/servers.h"
#include "events/profile_events.h"
#include "frame/console.h"
#include "frame/domain_socket.h"
#include "frame/meterd.h"
#include "radius/client_stats.h"
#include "radius/transport.h"

namespace {

// The delivery counters go back to the sender alone, at once or never: the
// daemon does not wait for a reader, and without a sender (tests) the
// report is made and goes nowhere.
void delivery_stats(const struct domain_socket_peer *to)
{
    char text[CLIENT_STATS_TEXT];
    size_t n = policy_report(text, sizeof text - 1);
    text[n++] = '\n';
    n += client_stats_report(text + n, sizeof text - n);
    if (policy->keep_records)
        n += servers_report(text + n, sizeof text - n);
    if (policy->lookups)
        n += lookups_report(text + n, sizeof text - n);
    radius_transport->report(text, sizeof text, &n);
    if (to)
        domain_socket_reply(to, text, n);
}

}  // namespace

void ovat_event_input(accounting_event_t *rec, const void *data, size_t len,
                      const struct domain_socket_peer *from)
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
    case ACCOUNTING_EVENT_DELIVERY_STATS:
        delivery_stats(from);
        break;
    default:
        break;
    }
    pthread_mutex_unlock(&mutex);
}

void *do_event_handler_ovat(void *)
{
    accounting_event_t rec;
    unsigned char buf[sizeof rec];
    domain_socket_serve(ACCOUNTING_SOCK, &rec, buf, sizeof rec, __func__,
                        [](void *r, const void *data, size_t len, const struct domain_socket_peer *from) {
                            ovat_event_input(static_cast<accounting_event_t *>(r), data, len, from);
                        });
    return nullptr;
}
