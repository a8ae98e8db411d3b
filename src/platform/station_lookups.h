// What the device knows of a station at this moment: its address, through
// the device shell, and its byte counters, through the statistics database.
// Asked at composition time with `mutex` held, so both block every other
// thread meanwhile; nothing is cached, so every packet carries what the
// device says now.
#ifndef METERD_PLATFORM_STATION_LOOKUPS_H
#define METERD_PLATFORM_STATION_LOOKUPS_H

#include <netinet/in.h>

#include "database/accounting.h"

// Non-zero with *ip set to the station's address, else 0 and *ip 0.0.0.0.
int whal_getip(const char *stamac, struct in_addr *ip);
// Always 0, as the device's library promises nothing more: both counters
// set, or both 0 when either could not be read.
int get_connection_status_by_ip(const char *user_mac, conn_t *status);
// The same, each counter's text read by `read` (0: unknown).
int station_counters(const char *user_mac, conn_t *status, uint64_t (*read)(const char *text));
// The design's reading of a counter's text: an int as atoi reads it, 0 when
// it is none, beyond int, or below 1 ("N/A" among them).
uint64_t counter_from_text(const char *text);
// The characters of a MAC text only: the MAC goes into a command line (a
// shell's, or ovat's own), where anything else would be interpreted.
bool shell_safe_mac(const char *mac);

#endif
