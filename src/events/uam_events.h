// Thread 5 (cloud mode): portal logins and logouts from the UAM library keep
// the portal user table in step, and a local login starts accounting at once.
#ifndef METERD_EVENTS_UAM_EVENTS_H
#define METERD_EVENTS_UAM_EVENTS_H

#include <cstddef>

#include "platform/platform.h"

// One UAM event of len bytes (at most a whole uam_event; a shorter one reads
// as zeros behind its end). Takes `mutex`.
void uam_event_input(const void *data, size_t len);

// Thread entry; returns NULL only when the UAM handle cannot be set up.
void *do_uam_event_handler(void *argv);

#endif
