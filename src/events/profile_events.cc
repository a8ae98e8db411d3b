#include "events/profile_events.h"

#include "database/nodes.h"
#include "database/profiles.h"
#include "delivery/transaction.h"
#include "frame/console.h"

// These arms report under the name of the loop that runs them.
#define OVAT_MODULE "accounting"
#define OVAT_FUNC "do_event_handler_ovat"

void accounting_event_remove(const struct ovat_remove_event *ev)
{
    struct accounting_radius *radius = search_radius_by_interface(ev->interface, PROFILE_TYPE_NORMAL);
    if (!radius) {
        TRACE_AT(OVAT_MODULE, OVAT_FUNC, "search_radius fail.\n");
        return;
    }
    profile_take_down(radius);
}

void profile_take_down(struct accounting_radius *radius)
{
    // Without memory for the Accounting-Off the profile is still taken out
    // of service: the operator asked for it to go, and a profile left in
    // place would keep accounting its sessions.
    struct accounting_node *node = add_new_node_for_on_off(radius);
    if (node)
        transaction_begin(node, ACCOUNTING_OFF);
    remove_radius(radius);
    // No transaction of its own will ever end and release it: it goes now.
    if (!node && radius_profile_idle(radius))
        free_radius_profile(radius);
}

void accounting_event_ac_ip_change(const struct ovat_ac_ip_change *ev)
{
    TRACE("accounting_event_AC_ip_change\n");
    replace_radius_to_new_ac_ip(ev->old_ac_ip, ev->new_ac_ip);
}

void accounting_event_shared_secret_change(const struct ovat_ac_ip_change *ev)
{
    TRACE("ACCOUNTING_EVENT_AC_SHARED_SECRET_KEY_CHANGE\n");
    replace_radius_to_new_ac_shared_secet_key(ev->old_ac_ip, ev->new_ac_ip);
}

void accounting_event_init(const struct ovat_config_event *ev)
{
    TRACE("accounting_event_init\n");
    profile_bring_up(ev->interface, ev, PROFILE_TYPE_NORMAL, OVAT_FUNC);
}

void profile_bring_up(const char *interface, const struct ovat_config_event *ev, int type,
                      const char *func)
{
    struct accounting_radius *radius = add_radius(interface, type);
    if (!radius) {
        TRACE_AT(OVAT_MODULE, func, "add_radius fail.\n");
        return;
    }
    if (update_radius_profile(radius, ev, type) == -1) {
        TRACE_AT(OVAT_MODULE, func, "update_radius_profile fail\n");
        return;
    }
    struct accounting_node *node = add_new_node_for_on_off(radius);
    if (node)
        transaction_begin(node, ACCOUNTING_ON);
}

void ovat_exit_remove_radius_all(void)
{
    struct list_head *p, *next;
    list_for_each_safe(p, next, &total_radius_server_header) {
        auto *radius = list_entry(p, struct accounting_radius, total_radius_server);
        struct accounting_node *node = add_new_node_for_on_off(radius);
        if (!node)
            continue;  // the others still get their Accounting-Off
        transaction_send_once(node, ACCOUNTING_OFF);
    }
}
