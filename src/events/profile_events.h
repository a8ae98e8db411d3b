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

#endif
