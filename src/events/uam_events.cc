#include "events/uam_events.h"

#include <cstdio>
#include <cstring>

#include "database/mac_text.h"
#include "database/nodes.h"
#include "database/portal_users.h"
#include "database/profiles.h"
#include "delivery/transaction.h"
#include "frame/console.h"
#include "frame/meterd.h"

namespace {

// The texts of an event that the daemon reads, each terminated: the library
// promises a NUL only when the text fits, so nothing reads a field directly.
struct uam_texts {
    char service[sizeof(uam_event::service) + 1];
    char real_username[sizeof(uam_event::real_username) + 1];
    char method[sizeof(uam_event::method) + 1];
    char ssid_name[sizeof(uam_event::ssid_name) + 1];
    char ssid_profile_name[sizeof(uam_event::ssid_profile_name) + 1];
    char ssid_vap_iface[sizeof(uam_event::ssid_vap_iface) + 1];
    char sta_mac[sizeof(uam_event::sta_mac) + 1];
};

#define UAM_COPY(t, e, field) copy_field((t)->field, sizeof (t)->field, (e)->field, sizeof (e)->field)

void read_texts(struct uam_texts *t, const struct uam_event *e)
{
    UAM_COPY(t, e, service);
    UAM_COPY(t, e, real_username);
    UAM_COPY(t, e, method);
    UAM_COPY(t, e, ssid_name);
    UAM_COPY(t, e, ssid_profile_name);
    UAM_COPY(t, e, ssid_vap_iface);
    UAM_COPY(t, e, sta_mac);
}

// 802.1X and MAC-authenticated users are accounted by the authenticator's
// own login records, not by the portal.
bool accounted_elsewhere(const struct uam_texts *t)
{
    return strcmp(t->service, "802.1x") == 0 || strcmp(t->service, "mac-auth") == 0;
}

struct user_entry *add_user(const struct uam_texts *t)
{
    return portal_user_add(t->sta_mac, t->real_username, t->ssid_name, t->ssid_profile_name);
}

void local_login(const struct uam_event *e, const struct uam_texts *t)
{
    if (e->ip == UAM_NO_IP)
        return;
    if (strcmp(t->method, "click-through") == 0) {
        TRACE("ClicktoContinue user, ignore it.\n");
        return;
    }
    if (accounted_elsewhere(t)) {
        TRACE("%s user, ignore it login\n", t->service);
        return;
    }
    TRACE("The login user assoc from \"%s\".\n", t->ssid_vap_iface);
    struct accounting_radius *radius = search_radius_by_interface(t->ssid_vap_iface, PROFILE_TYPE_PORTAL);
    if (!radius) {
        TRACE("The login user \"%s\" doesn't need to do accounting.\n", t->real_username);
        return;
    }
    if (!add_user(t))
        return;

    accounting_msg_t msg;
    memset(&msg, 0, sizeof msg);
    copy_text(msg.calling_station_id, sizeof msg.calling_station_id, t->sta_mac);
    copy_text(msg.user_name, sizeof msg.user_name, t->real_username);
    char ap_mac[18] = {0};
    change_mac_format(ap_mac, global_ap_mac);
    snprintf(msg.called_station_id, sizeof msg.called_station_id, "%s:%s", ap_mac, t->ssid_name);

    // Not parked on ip_change_header: the Start goes out now, with the
    // address the device reports for the station.
    struct accounting_node *node = add_new_node(&msg, radius, PROFILE_TYPE_PORTAL, 0);
    if (!node)
        return;
    TRACE("node's session-id is: %s\n", node->self->user->session_id);
    transaction_begin(node, ACCOUNTING_START);
    // Only now: until then the Start is composed with the looked-up address.
    node->self->user->accounting_start = 1;
}

void logout(const struct uam_event *e, const struct uam_texts *t)
{
    // A foreign user leaves the table whatever the filters below say.
    if (e->usr_from == USR_FROM_FOREIGN)
        portal_user_remove(t->sta_mac, t->ssid_profile_name);
    if (e->ip == UAM_NO_IP)
        return;
    if (accounted_elsewhere(t)) {
        TRACE("1X user or MAC user, ignore it\n");
        return;
    }
    portal_user_remove(t->sta_mac, t->ssid_profile_name);
}

void dispatch(const struct uam_event *e)
{
    struct uam_texts t;
    read_texts(&t, e);
    pthread_mutex_lock(&mutex);
    switch (e->event) {
    case UAM_EVENT_USER_LOGIN:
        if (e->usr_from == USR_FROM_FOREIGN) {
            // Its session opens when the station associates here.
            TRACE("Foreign user, add hash table.\n");
            add_user(&t);
        } else {
            local_login(e, &t);
        }
        break;
    case UAM_EVENT_USER_LOGOUT:
    case UAM_EVENT_USER_LOGOUT2:
    case UAM_EVENT_USER_REAUTH_TIMEOUT:
    case UAM_EVENT_USER_LEASE_TIMEOUT:
    case UAM_EVENT_USER_IDLE_TIMEOUT:
        logout(e, &t);
        break;
    default:
        break;
    }
    pthread_mutex_unlock(&mutex);
}

}  // namespace

void uam_event_input(const void *data, size_t len)
{
    struct uam_event e;
    memset(&e, 0, sizeof e);
    memcpy(&e, data, len < sizeof e ? len : sizeof e);
    dispatch(&e);
}

void *do_uam_event_handler(void *)
{
    struct uam_handle *h = uam_create_handle(0);
    if (h && uam_set_mode(h, 1) >= 0) {
        for (;;) {
            struct uam_event e;
            int ret = uam_read_event(h, &e, 60000000);
            if (ret < 0) {
                TRACE("uam_read_event error, ret=%d\n", ret);
                continue;
            }
            if (ret == 0)
                continue;
            TRACE("got an UAM event %d\n", ret);
            dispatch(&e);
        }
    }
    TRACE("do_uam_event_handler end..\n");
    return nullptr;
}
