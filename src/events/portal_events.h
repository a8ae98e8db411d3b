// Thread 6 (cloud mode): the portal profiles of all 16 interfaces, replaced
// at once by one datagram on /tmp/accounting_portal.sock.
#ifndef METERD_EVENTS_PORTAL_EVENTS_H
#define METERD_EVENTS_PORTAL_EVENTS_H

#include <cstddef>

#include "frame/ovat_event.h"

#define ACCOUNTING_PORTAL_SOCK "/tmp/accounting_portal.sock"

enum { PORTAL_SLOTS = 2, PORTAL_VAPS = 8 };

// Host order; the entry of slot s and vap v configures wlan-(s+1)-(v+1).
typedef struct accounting_portal_event_s {
    int event_id;  // 4 bytes here, unlike the control datagram's 8
    struct ovat_config_event for_portal_profile[PORTAL_SLOTS][PORTAL_VAPS];
} portal_event_t;
static_assert(sizeof(portal_event_t) == 6532, "portal datagram is 6532 bytes");
static_assert(offsetof(portal_event_t, for_portal_profile) == 4, "layout");
static_assert(offsetof(portal_event_t, for_portal_profile[1][0]) == 4 + 3264, "layout");

// One portal datagram of len bytes, copied over the start of rec (the
// thread's record, which keeps what earlier datagrams left behind it).
// Takes `mutex`.
void portal_event_input(portal_event_t *rec, const void *data, size_t len);

// Thread entry; returns NULL only when its socket cannot be set up.
void *portal_event_handler_ovat(void *argv);

#endif
