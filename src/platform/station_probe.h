// Station look-ups that a worker thread can run outside `mutex`: the address
// from the device shell's own `ovat`, started without a shell and read in
// process, bounded in time and in output; the byte counters from the
// statistics database with no state shared between callers.
//
// Neither touches the daemon's globals, takes a lock or traces: the caller
// decides what to count and what to print from the outcome.
#ifndef METERD_PLATFORM_STATION_PROBE_H
#define METERD_PLATFORM_STATION_PROBE_H

#include <netinet/in.h>

#include <cstdint>

#include "database/accounting.h"

// The sim's `ovat` answers within 5 ms (Release) or 160 ms (under ASan) on a
// busy two-core test host, the design's pipeline within 30 ms. Two seconds
// is far past any answer that is still coming, and within the 3-second
// pass of the scheduler.
#define STATION_LOOKUP_TIMEOUT_MS 2000
// The station's page is a few hundred bytes; past this the output is not
// that page, and is not read further.
#define STATION_LOOKUP_OUTPUT_LIMIT 65536

enum lookup_result {
    LOOKUP_OK = 0,          // an address that inet_aton accepts (0.0.0.0 included)
    LOOKUP_NO_ADDRESS,      // ovat ended with no IPv4 line, or a bad address on it
    LOOKUP_TIMED_OUT,       // ovat neither answered nor ended in time: killed
    LOOKUP_TOO_LARGE,       // more output than the limit before an IPv4 line: killed
    LOOKUP_NOT_STARTED,     // no ovat on PATH, a MAC that is not MAC text, no pipe
};

struct lookup_outcome {
    enum lookup_result result;
    // Whether the design's pipeline would have given a line, and the text it
    // would have handed to inet_aton (its trace shows both): the IPv4 line's
    // second field, at most 31 bytes.
    bool line;
    char text[32];
};

// Non-zero with *ip set to the station's address, else 0 and *ip 0.0.0.0,
// as whal_getip. Runs `ovat -p 100 -e 'show wireless-hal station
// non-real-time MAC'` in its own process group and decides as
// `ovat | grep -e 'IPv4:' | awk '{print $2}'` read by fgets into 32 bytes:
// the first line that contains "IPv4:", its second field. The answer stands
// once ovat has ended; ovat still running after timeout_ms (<= 0: the
// default above) is killed with its group and reaped, and the look-up fails.
// how may be null.
int station_address_lookup(const char *mac, struct in_addr *ip, int timeout_ms,
                           struct lookup_outcome *how);

// The byte counters of get_connection_status_by_ip with each counter read
// as one whole unsigned 64-bit number: both set, or both 0 when either is
// missing, zero or not a number. Reentrant; not bounded in time (the
// library call cannot be interrupted). Non-zero when both were read.
int station_counters_lookup(const char *user_mac, conn_t *status);

// The whole text is one unsigned 64-bit number (blanks around it allowed),
// or the counter is unknown (0), so that a counter past 2 GiB is read as it is.
uint64_t read_counter64(const char *text);

#endif
