// The profile arms of the control channel. Each runs on the control thread
// with `mutex` held by its receive loop, and copies what it keeps out of the
// received record.
#ifndef METERD_EVENTS_PROFILE_EVENTS_H
#define METERD_EVENTS_PROFILE_EVENTS_H

#include "frame/ovat_event.h"

// Accounting-Off for the interface's normal profile, then its removal.
void accounting_event_remove(const struct ovat_remove_event *ev);
// Rewrites the controller's address in the normal profiles' primaries.
void accounting_event_ac_ip_change(const struct ovat_ac_ip_change *ev);
// A new normal profile, then its Accounting-On.
void accounting_event_init(const struct ovat_config_event *ev);
// Rewrites the controller's shared secret in the normal profiles' primaries.
void accounting_event_shared_secret_change(const struct ovat_ac_ip_change *ev);
// One Accounting-Off for each normal profile, sent once and never awaited.
void ovat_exit_remove_radius_all(void);

// Shared with the portal channel, whose profiles go and come the same way.
struct accounting_radius;
// Accounting-Off for the profile, then its removal; without memory for the
// Off it is removed all the same.
void profile_take_down(struct accounting_radius *radius);
// A new profile of the family `type` for the interface, filled from ev, then
// its Accounting-On. Failures are traced under the name func.
void profile_bring_up(const char *interface, const struct ovat_config_event *ev, int type,
                      const char *func);

#endif
