// libFuzzer target for one input of the daemon, chosen by FUZZ_INPUT. Each
// run starts from the same small database (profiles of both families,
// sessions waiting, started and stopping, transactions in flight), feeds it
// frames of that input through the function the daemon's thread calls, and
// frees everything again, so runs neither depend on nor pile up on each other.
//
// A frame is [flags][length, 2 bytes little-endian][bytes]; the response
// target has a selector byte after the flags. Flags: bits 1-2 move the clock
// on first (0, 3, 6 or 60 seconds), bit 4 runs a scheduler pass after, bits
// 0 and 3 both set turn debugging on (a quarter of the frames: every console
// line opens the console anew), bit 5 (responses) signs the bytes as the
// answer to the captured request that the selector picks, with the backup
// secret if bit 6 (responses come from the backup's address then), and bit 7
// of the first frame leaves cloud mode where the input exists outside it.
// Bit 7 of the response target's first selector (the others pick) runs it
// under meterd -k, with the primary of the first profile dead and its
// Status-Server the last datagram captured, so that answers to probes are
// fuzzed too.
// A request for the delivery counters on the control socket must leave the
// daemon as it found it, or the run traps.
//
// The stream target needs no database: each frame is one read of a TLS
// connection, flags unused, and the packets that come out must be the
// stream's bytes in order, each as long as its Length says, or the run traps.
#include <arpa/inet.h>
#include <netdb.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "database/portal_users.h"
#include "delivery/identifiers.h"
#include "delivery/policy.h"
#include "delivery/servers.h"
#include "delivery/scheduler.h"
#include "delivery/transaction.h"
#include "events/driver_events.h"
#include "events/portal_events.h"
#include "events/station_events.h"
#include "events/uam_events.h"
#include "frame/clock.h"
#include "frame/console.h"
#include "daemon/control.h"
#include "platform/sim/sim.h"
#include "radius/client_stats.h"
#include "radius/radius_msg.h"
#include "radius/radius_send_recieve.h"
#include "radius/radius_stream.h"
#include "shared.h"

// What FUZZ_INPUT names.
enum { FUZZ_CONTROL = 1, FUZZ_PORTAL, FUZZ_LOGIN, FUZZ_REPORT, FUZZ_NETLINK, FUZZ_UAM, FUZZ_RESPONSE, FUZZ_STREAM };

// Nothing leaves the process: no name resolves, no station look-up runs a shell.
extern "C" struct hostent *gethostbyname(const char *) { return nullptr; }
extern "C" FILE *popen(const char *, const char *) { return nullptr; }

namespace {

const char PRIMARY_SECRET[] = "primary-secret", BACKUP_SECRET[] = "backup-secret";
const time_t EPOCH = 1700000000;
time_t now;

unsigned char sent[16][RADIUS_BUF_LEN];
unsigned nsent;

ssize_t capture(int, const void *buf, size_t len, const struct sockaddr_in *)
{
    memcpy(sent[nsent++ % 16], buf, std::min(len, sizeof sent[0]));
    return static_cast<ssize_t>(len);
}

// The threads' records, which keep what earlier datagrams left in them.
accounting_event_t control_rec;
portal_event_t portal_rec;
AUTH_HDR response;

// What a request for the delivery counters must leave as it found it: the
// queues with their nodes' deadlines and retries, the scheduler, profiles,
// sessions, the next Identifier, what was sent, and the counters.
std::string daemon_state()
{
    std::string s = std::to_string(request_id) + ' ' + std::to_string(nsent) + ' ' + std::to_string(debug.load());
    auto nodes = [&s](list_head *head) {
        for (list_head *p = head->next; p != head; p = p->next) {
            const user_accounting_info *self = list_entry(p, accounting_node, queue)->self;
            s += ' ' + std::to_string(self->report_time) + ':' + std::to_string(self->retry_count) + ':' +
                 std::to_string(self->server) + ':' + std::to_string(self->sent_to);
        }
        s += " |";
    };
    for (list_head *head : {&request_queue_header, &fail_queue_header, &id_wait_header})
        nodes(head);
    for (list_head *p = total_interim_queue_header.next; p != &total_interim_queue_header; p = p->next)
        nodes(&list_entry(p, interim_queue, total_interim_queue)->interim_queue_header);
    for (list_head *head : {&event_header, &total_radius_server_header, &portal_radius_server_header,
                            &mac_address_header, &ip_change_header})
        s += ' ' + std::to_string(list_length(head));
    char text[CLIENT_STATS_TEXT];
    client_stats_report(text, sizeof text);
    return s + text;
}

void control_input(const void *bytes, size_t n)
{
    // A request for the delivery counters, whatever else it holds, changes
    // nothing but the record's bytes, like any event outside the table.
    accounting_event_t next = control_rec;
    memcpy(&next, bytes, std::min(n, sizeof next));
    std::string before = next.event_id == ACCOUNTING_EVENT_DELIVERY_STATS ? daemon_state() : "";
    ovat_event_input(&control_rec, bytes, n);
    if (!before.empty() && daemon_state() != before)
        __builtin_trap();
    if (control_rec.event_id == ACCOUNTING_EVENT_EXIT) {
        // Event 5 leaves each profile's count one high for an Off it never
        // awaits, so that a later unanswered Off strands the profile as
        // designed. That known loss is not what this fuzzer looks for.
        for (list_head *p = total_radius_server_header.next; p != &total_radius_server_header; p = p->next)
            list_entry(p, accounting_radius, total_radius_server)->on_off_count--;
    }
}

const uint8_t station1[6] = {2, 0, 0, 0, 0, 1}, station3[6] = {2, 0, 0, 0, 0, 3};

ovat_config_event profile(const char *iface, const char *backup)
{
    return profile_config(iface, "127.0.0.1", PRIMARY_SECRET, backup, BACKUP_SECRET, 1);
}

// Profiles with and without a backup, one removed with its Off and On both
// in flight; sessions started, waiting for their address and stopping; in
// cloud mode a portal profile, a portal user and a portal session.
void baseline()
{
    deliver(control_input, control_event(ACCOUNTING_EVENT_INIT, profile("wlan-1-1", "127.0.0.2")));
    deliver(control_input, control_event(ACCOUNTING_EVENT_INIT, profile("wlan-1-2", "")));
    deliver(control_input, control_event(ACCOUNTING_EVENT_INIT, profile("wlan-1-4", "")));
    deliver(control_input, control_event(ACCOUNTING_EVENT_REMOVE, "wlan-1-4"));
    if (is_cloud) {
        portal_event_t p = portal_event(ACCOUNTING_EVENT_MODIFY_FOR_PORTAL);
        p.for_portal_profile[0][2] = profile("", "127.0.0.2");
        portal_event_input(&portal_rec, &p, sizeof p);
    }
    locked([] {
        deliver(station_login_input, login_record("started", "02:00:00:00:00:01", "wlan-1-1", 60));
        deliver(station_login_input, login_record("waiting", "02:00:00:00:00:02", "wlan-1-1", 60));
        deliver(station_login_input, login_record("stopping", "02:00:00:00:00:03", "wlan-1-2", 60));
        deliver(station_report_input, station_report(station1, 0x0a000001));
        deliver(station_report_input, station_report(station3, 0x0a000003));
        deliver(netlink_input, driver_message(SARNET_CMD_STA_DISASSOC, "wlan-1-2", station3));
        if (is_cloud)
            portal_user_add("02:00:00:00:00:04", "portal", "ssid", "SSID3");
    });
    if (is_cloud)
        deliver(uam_event_input, uam_login("uam", "02:00:00:00:00:05", "wlan-1-3", "SSID3"));
}

void feed(uint8_t flags, uint8_t select, const uint8_t *bytes, size_t n)
{
    if (FUZZ_INPUT == FUZZ_CONTROL)
        control_input(bytes, n);
    else if (FUZZ_INPUT == FUZZ_PORTAL)
        portal_event_input(&portal_rec, bytes, n);
    else if (FUZZ_INPUT == FUZZ_UAM)
        uam_event_input(bytes, std::min(n, sizeof(uam_event)));
    else if (FUZZ_INPUT == FUZZ_LOGIN)
        locked([=] { station_login_input(bytes, std::min(n, sizeof(accounting_msg_t))); });
    else if (FUZZ_INPUT == FUZZ_REPORT)
        locked([=] { station_report_input(bytes, std::min(n, sizeof(staStatus_t))); });
    else if (FUZZ_INPUT == FUZZ_NETLINK)
        locked([=] { netlink_input(bytes, std::min(n, size_t{NETLINK_READ_SIZE})); });
    if (FUZZ_INPUT != FUZZ_RESPONSE)
        return;
    // radius_recv refuses empty datagrams and those of 1024 bytes or more.
    unsigned char *buf = reinterpret_cast<unsigned char *>(&response);
    if ((flags & 0x20) && nsent)
        n = signed_answer(buf, sent[(nsent - 1 - (select & 0x7f) % std::min(nsent, 16u)) % 16], bytes, n,
                          flags & 0x40 ? BACKUP_SECRET : PRIMARY_SECRET);
    else if (n >= 1 && n < RADIUS_RECV_LEN)
        memcpy(buf, bytes, n);
    else
        return;
    // From the server whose secret signed it, for the delivery counters.
    radius_datagram d = {};
    d.from.sin_family = AF_INET;
    d.from.sin_addr.s_addr = htonl(flags & 0x40 ? 0x7f000002 : 0x7f000001);
    d.from.sin_port = htons(1813);
    d.length = static_cast<ssize_t>(n);
    radius_response_input(&response, &d);
}

// One connection's reads through the stream reader. What it hands on is
// checked against the bytes read so far: each packet where the last one
// ended, as long as its own Length.
std::string stream_read, stream_delivered;
radius_stream stream;

void stream_packet(void *, const uint8_t *p, size_t len)
{
    stream_delivered.append(reinterpret_cast<const char *>(p), len);
    if (len < 20 || len > 4096 || (size_t{p[2]} << 8 | p[3]) != len ||
        stream_read.compare(0, stream_delivered.size(), stream_delivered) != 0)
        __builtin_trap();
}

void stream_input(const uint8_t *data, size_t size)
{
    stream_read.clear();
    stream_delivered.clear();
    radius_stream_reset(&stream);
    bool closed = false;
    while (size >= 3 && !closed) {
        size_t n = std::min(data[1] | size_t{data[2]} << 8, size - 3);
        // A read of its own exact size, so that a byte read behind it is seen.
        std::string bytes(reinterpret_cast<const char *>(data + 3), n);
        stream_read += bytes;
        closed = radius_stream_input(&stream, reinterpret_cast<const uint8_t *>(bytes.data()), n, stream_packet,
                                     nullptr) != 0;
        data += 3 + n;
        size -= 3 + n;
    }
    // Nothing whole is held back: what stays is less than the next packet.
    const std::string &r = stream_read;
    size_t at = stream_delivered.size();
    if (!closed && r.size() - at >= 4 &&
        r.size() - at >= (size_t{static_cast<uint8_t>(r[at + 2])} << 8 | static_cast<uint8_t>(r[at + 3])))
        __builtin_trap();
}

}  // namespace

// A run allocates a few hundred KiB at most: a smaller quarantine still holds
// freed memory for many runs, and spares the faults of ever fresh pages.
extern "C" const char *__asan_default_options() { return "quarantine_size_mb=16"; }

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    mtr_set_clock([] { return now; });
    radius_sendto = capture;
    transaction_init();
    console_path = "/dev/null";
    sim_root = "/nonexistent";
    is_cloud = 1;
    init_meterd_db();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (FUZZ_INPUT == FUZZ_STREAM) {
        stream_input(data, size);
        return 0;
    }
    const bool response_frames = FUZZ_INPUT == FUZZ_RESPONSE;
    const size_t head = response_frames ? 4 : 3;
    now = EPOCH;
    nsent = 0;
    client_stats_clear();
    request_id = 0;
    memset(&control_rec, 0, sizeof control_rec);
    memset(&portal_rec, 0, sizeof portal_rec);
    memset(&response, 0, sizeof response);
    // Cloud mode unless the first frame leaves it, where the input exists outside it.
    is_cloud = FUZZ_INPUT == FUZZ_PORTAL || FUZZ_INPUT == FUZZ_UAM || size == 0 || !(data[0] & 0x80);
    debug = 0;
    identifiers_clear();
    const bool keep = response_frames && size >= 2 && (data[1] & 0x80);
    policy_choose(keep ? EXT_KEEP_RECORDS : 0);
    baseline();
    if (keep)
        locked([] {
            // A request whose budget began after the server's last answer.
            struct user_accounting_info unlucky;
            memset(&unlucky, 0, sizeof unlucky);
            unlucky.budget_since = mtr_time() + 1;
            servers_dead(list_entry(total_radius_server_header.next, accounting_radius, total_radius_server)
                             ->primary_server,
                         &unlucky);
            servers_probe(now + PROBE_FIRST);
        });

    // Bounded, so that no run costs more than a few milliseconds: a frame
    // of the portal target builds and sends up to 32 packets.
    int frames = FUZZ_INPUT == FUZZ_PORTAL ? 4 : 16;
    while (size >= head && frames-- > 0) {
        uint8_t flags = data[0], select = response_frames ? data[1] : 0;
        size_t n = data[head - 2] | size_t{data[head - 1]} << 8;
        data += head;
        size -= head;
        n = std::min(n, size);
        static const int advance[4] = {0, SCHEDULER_TICK, 2 * SCHEDULER_TICK, 60};
        debug = (flags & 0x09) == 0x09;
        now += advance[(flags >> 1) & 3];
        feed(flags, select, data, n);
        if (flags & 0x10)
            locked([] { scheduler_pass(now); });
        data += n;
        size -= n;
    }
    debug = 0;
    clear_database();
    policy_choose(0);
    return 0;
}
