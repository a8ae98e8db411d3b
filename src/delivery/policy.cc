// The design's rules and the extended ones, chosen once.
#include "delivery/policy.h"

#include <cstdio>

#include "platform/station_lookups.h"
#include "platform/station_probe.h"
#include "radius/client_stats.h"
#include "radius/compose.h"
#include "radius/radius_send_recieve.h"

namespace {

// The design: the look-up's reading replaces what was stored, zeros and
// all; the driver's replaces it only when both counters are there, since a
// pair with a zero is a driver that has not counted yet.
bool design_counters(struct user_accounting_info *self, const conn_t *seen, bool looked_up)
{
    if (!looked_up && (seen->rx == 0 || seen->tx == 0))
        return false;
    self->conn_tx_rx_status = *seen;
    return true;
}

// One rule for every reading: a pair with a zero is no reading; a counter
// lower than the device's last reading was reset (a driver restart, the
// station back on another radio), so what was counted before the reset
// stays in the session's total and the new count adds to it.
void steady_direction(uint64_t *total, uint64_t *base, uint64_t *last, uint64_t seen)
{
    if (seen < *last)
        *base += *last;
    *last = seen;
    *total = *base + seen;
}

bool steady_counters(struct user_accounting_info *self, const conn_t *seen, bool)
{
    if (seen->rx == 0 || seen->tx == 0)
        return false;
    steady_direction(&self->conn_tx_rx_status.rx, &self->conn_base.rx, &self->conn_seen.rx, seen->rx);
    steady_direction(&self->conn_tx_rx_status.tx, &self->conn_base.tx, &self->conn_seen.tx, seen->tx);
    return true;
}

struct delivery_policy chosen = {0, counter_from_text, design_counters, false, false, false, false, false};

// An option added after the report's first readers is named only when on,
// so that the report of a daemon without it reads as it always has.
struct option_name {
    unsigned bit;
    const char *name;
    bool named_when_off;
};
constexpr option_name option_names[] = {
    {EXT_GIGAWORDS, "gigawords", true},
    {EXT_UNIQUE_IDS, "unique_ids", true},
    {EXT_RETRY_PER_REQUEST, "retry_per_request", true},
    {EXT_STEADY_COUNTERS, "steady_counters", true},
    {EXT_KEEP_RECORDS, "keep_records", true},
    {EXT_LOOKUPS, "lookups", false},
};
constexpr unsigned named_options()
{
    unsigned all = 0;
    for (const option_name &o : option_names)
        all |= o.bit;
    return all;
}
static_assert(named_options() == EXT_ALL, "every option needs its name in the report");

}  // namespace

const struct delivery_policy *policy = &chosen;

void policy_choose(unsigned options)
{
    bool keep = options & EXT_KEEP_RECORDS;
    chosen.options = options;
    chosen.read_counter = options & (EXT_GIGAWORDS | EXT_STEADY_COUNTERS) ? read_counter64 : counter_from_text;
    chosen.take_counters = options & EXT_STEADY_COUNTERS ? steady_counters : design_counters;
    // A look-up that timed out is no news of the station: what the session
    // knew stands.
    chosen.keep_address = options & (EXT_STEADY_COUNTERS | EXT_LOOKUPS);
    chosen.lookups = options & EXT_LOOKUPS;
    // Keeping records needs both: a dead server is told by a request's
    // whole budget, and a probe's Identifier must meet no request's.
    chosen.budget_per_request = keep || (options & EXT_RETRY_PER_REQUEST);
    chosen.unique_ids = keep || (options & EXT_UNIQUE_IDS);
    chosen.keep_records = keep;
    // Requests that wait for a dead server stay stored for long: at their
    // own length they keep a session under a kilobyte.
    struct compose_rules rules = {(options & EXT_GIGAWORDS) != 0, keep, keep};
    compose_configure(&rules);
}

size_t policy_report(char *out, size_t size)
{
    size_t n = 0;
    report_put(out, size, &n, "extensions");
    for (const option_name &o : option_names)
        if (o.named_when_off || (chosen.options & o.bit))
            report_put(out, size, &n, " %s %d", o.name, (chosen.options & o.bit) ? 1 : 0);
    return n;
}
