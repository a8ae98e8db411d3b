#include "events/portal_events.h"

#include <cstdio>
#include <cstring>

#include "database/profiles.h"
#include "events/profile_events.h"
#include "frame/console.h"
#include "frame/domain_socket.h"
#include "frame/meterd.h"

// The walk reports under the name of the loop that runs it.
#define PORTAL_MODULE "accounting"
#define PORTAL_FUNC "portal_event_handler_ovat"

namespace {

void take_down(const char *interface)
{
    struct accounting_radius *del_radius = search_radius_by_interface(interface, PROFILE_TYPE_PORTAL);
    if (!del_radius)
        return;
    TRACE_AT(PORTAL_MODULE, PORTAL_FUNC, "delete_radius for %s.\n", interface);
    profile_take_down(del_radius);
}

void modify_for_portal(const portal_event_t *rec)
{
    TRACE("receive ovat event. %d\n", rec->event_id);
    TRACE("receive ACCOUNTING_EVENT_MODIFY_FOR_PORTAL\n");
    // Decided once, before the walk adds any: an empty list needs no search.
    int F_flag = list_empty(&portal_radius_server_header) ? 0 : 1;
    for (int slot = 0; slot < PORTAL_SLOTS; slot++) {
        for (int vap = 0; vap < PORTAL_VAPS; vap++) {
            char interface[16];
            snprintf(interface, sizeof interface, "wlan-%d-%d", slot + 1, vap + 1);
            if (F_flag)
                take_down(interface);
            const struct ovat_config_event *entry = &rec->for_portal_profile[slot][vap];
            // Only the primary decides: an entry with a lone backup is empty.
            if (entry->hostname[0])
                profile_bring_up(interface, entry, PROFILE_TYPE_PORTAL, PORTAL_FUNC);
        }
    }
}

}  // namespace

void portal_event_input(portal_event_t *rec, const void *data, size_t len)
{
    memcpy(rec, data, len < sizeof *rec ? len : sizeof *rec);
    pthread_mutex_lock(&mutex);
    if (rec->event_id == ACCOUNTING_EVENT_MODIFY_FOR_PORTAL)
        modify_for_portal(rec);
    pthread_mutex_unlock(&mutex);
}

void *portal_event_handler_ovat(void *)
{
    portal_event_t rec;
    unsigned char buf[sizeof rec];
    domain_socket_serve(ACCOUNTING_PORTAL_SOCK, &rec, buf, sizeof rec, __func__,
                        [](void *r, const void *data, size_t len, const struct domain_socket_peer *) {
                            portal_event_input(static_cast<portal_event_t *>(r), data, len);
                        });
    return nullptr;
}
