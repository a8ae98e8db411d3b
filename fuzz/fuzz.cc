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
// secret if bit 6, and bit 7 of the first frame leaves cloud mode where the
// input exists outside it.
#include <netdb.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iterator>

#include "database/accounting_db_api.h"
#include "delivery/queues.h"
#include "delivery/retry.h"
#include "delivery/scheduler.h"
#include "events/driver_events.h"
#include "events/portal_events.h"
#include "events/station_events.h"
#include "events/uam_events.h"
#include "frame/clock.h"
#include "frame/console.h"
#include "frame/control.h"
#include "frame/memory.h"
#include "platform/sim/sim.h"
#include "radius/md5.h"
#include "radius/radius_send_recieve.h"

#define FUZZ_CONTROL 1
#define FUZZ_PORTAL 2
#define FUZZ_LOGIN 3
#define FUZZ_REPORT 4
#define FUZZ_NETLINK 5
#define FUZZ_UAM 6
#define FUZZ_RESPONSE 7

// Nothing leaves the process: no name resolves, no station look-up runs a shell.
extern "C" struct hostent *gethostbyname(const char *) { return nullptr; }
extern "C" FILE *popen(const char *, const char *) { return nullptr; }

namespace {

const char PRIMARY_SECRET[] = "primary-secret", BACKUP_SECRET[] = "backup-secret";
const time_t EPOCH = 1700000000;
time_t now;

struct datagram {
    unsigned char bytes[RADIUS_BUF_LEN];
    size_t len;
} sent[16];
unsigned nsent;

ssize_t capture(int, const void *buf, size_t len, const struct sockaddr_in *)
{
    datagram &d = sent[nsent++ % 16];
    d.len = std::min(len, sizeof d.bytes);
    memcpy(d.bytes, buf, d.len);
    return static_cast<ssize_t>(len);
}

// The threads' records, which keep what earlier datagrams left in them.
accounting_event_t control_rec;
portal_event_t portal_rec;
AUTH_HDR response;

void control_input(const void *bytes, size_t n)
{
    ovat_event_input(&control_rec, bytes, n);
    if (control_rec.event_id == ACCOUNTING_EVENT_EXIT) {
        // Event 5 leaves each profile's count one high for an Off it never
        // awaits, so that a later unanswered Off strands the profile as
        // designed. That known loss is not what this fuzzer looks for.
        for (list_head *p = total_radius_server_header.next; p != &total_radius_server_header; p = p->next)
            list_entry(p, accounting_radius, total_radius_server)->on_off_count--;
    }
}

void control(int64_t id, const void *payload, size_t n)
{
    accounting_event_t ev;
    memset(&ev, 0, sizeof ev);
    ev.event_id = id;
    memcpy(&ev.u, payload, n);
    control_input(&ev, sizeof ev);
}

ovat_config_event profile(const char *iface, const char *primary, const char *backup)
{
    ovat_config_event c;
    memset(&c, 0, sizeof c);
    copy_text(c.interface, sizeof c.interface, iface);
    copy_text(c.hostname, sizeof c.hostname, primary);
    copy_text(c.backup_hostname, sizeof c.backup_hostname, backup);
    copy_text(c.secret, sizeof c.secret, PRIMARY_SECRET);
    copy_text(c.backup_secret, sizeof c.backup_secret, BACKUP_SECRET);
    c.port = c.backup_port = 1813;
    c.acct_interim = 1;
    return c;
}

void login(const char *user, const char *mac, const char *iface)
{
    accounting_msg_t m;
    memset(&m, 0, sizeof m);
    copy_text(m.user_name, sizeof m.user_name, user);
    copy_text(m.calling_station_id, sizeof m.calling_station_id, mac);
    copy_text(m.interface, sizeof m.interface, iface);
    m.interim_interval = 60;
    station_login_input(&m, sizeof m);
}

void report(unsigned char last)
{
    staStatus_t r;
    memset(&r, 0, sizeof r);
    r.client_ip.s_addr = htonl(0x0a000000u | last);
    unsigned char mac[6] = {2, 0, 0, 0, 0, last};
    memcpy(r.mac, mac, sizeof mac);
    station_report_input(&r, sizeof r);
}

void disassoc(unsigned char last, const char *iface)
{
    enum { ATTR = SARNET_ATTR_OFFSET, EVENT = ATTR + sizeof(nlattr), LEN = EVENT + sizeof(sarnet_event) };
    unsigned char m[LEN] = {0};
    nlmsghdr h = {LEN, SARNETM_WIRELESS_EVENT, 0, 0, 0};
    nlattr a = {sizeof(nlattr) + sizeof(sarnet_event), SARNET_ATTR_EVENT};
    sarnet_event ev;
    memset(&ev, 0, sizeof ev);
    ev.hdr.cmd = SARNET_CMD_STA_DISASSOC;
    unsigned char mac[6] = {2, 0, 0, 0, 0, last};
    memcpy(ev.data.u.sta.macaddr, mac, sizeof mac);
    memcpy(m, &h, sizeof h);
    copy_text(reinterpret_cast<char *>(m + SARNET_IFINFO_OFFSET), 16, iface);
    memcpy(m + ATTR, &a, sizeof a);
    memcpy(m + EVENT, &ev, sizeof ev);
    netlink_input(m, sizeof m);
}

// Profiles with and without a backup, one removed with its Off and On both
// in flight; sessions started, waiting for their address and stopping; in
// cloud mode a portal profile, a portal user and a portal session.
void baseline()
{
    ovat_config_event c = profile("wlan-1-1", "127.0.0.1", "127.0.0.2");
    control(ACCOUNTING_EVENT_INIT, &c, sizeof c);
    c = profile("wlan-1-2", "127.0.0.1", "");
    control(ACCOUNTING_EVENT_INIT, &c, sizeof c);
    c = profile("wlan-1-4", "127.0.0.1", "");
    control(ACCOUNTING_EVENT_INIT, &c, sizeof c);
    ovat_remove_event r;
    memset(&r, 0, sizeof r);
    copy_text(r.interface, sizeof r.interface, "wlan-1-4");
    control(ACCOUNTING_EVENT_REMOVE, &r, sizeof r);
    if (is_cloud) {
        portal_event_t p;
        memset(&p, 0, sizeof p);
        p.event_id = ACCOUNTING_EVENT_MODIFY_FOR_PORTAL;
        p.for_portal_profile[0][2] = profile("", "127.0.0.1", "127.0.0.2");
        portal_event_input(&portal_rec, &p, sizeof p);
    }
    pthread_mutex_lock(&mutex);
    login("started", "02:00:00:00:00:01", "wlan-1-1");
    login("waiting", "02:00:00:00:00:02", "wlan-1-1");
    login("stopping", "02:00:00:00:00:03", "wlan-1-2");
    report(1);
    report(3);
    disassoc(3, "wlan-1-2");
    if (is_cloud)
        portal_user_add("02:00:00:00:00:04", "portal", "ssid", "SSID3");
    pthread_mutex_unlock(&mutex);
    if (is_cloud) {
        uam_event e;
        memset(&e, 0, sizeof e);
        e.event = UAM_EVENT_USER_LOGIN;
        copy_text(e.real_username, sizeof e.real_username, "uam");
        copy_text(e.ssid_vap_iface, sizeof e.ssid_vap_iface, "wlan-1-3");
        copy_text(e.ssid_profile_name, sizeof e.ssid_profile_name, "SSID3");
        copy_text(e.sta_mac, sizeof e.sta_mac, "02:00:00:00:00:05");
        uam_event_input(&e, sizeof e);
    }
}

// A removed profile lives on through its on/off nodes: it goes once all its
// queued nodes have gone. Collected, not released node by node, which would
// walk every queue for each of them.
accounting_radius *removed[1 << 16];
size_t nremoved;

void drain(list_head *queue)
{
    while (!list_empty(queue)) {
        auto *node = reinterpret_cast<accounting_node *>(queue->next);
        accounting_radius *radius = node->self->acct_radius;
        if (radius && radius->acct_status == ACCOUNTING_OFF && nremoved < std::size(removed))
            removed[nremoved++] = radius;
        free_accounting_node(node);
    }
}

void reset()
{
    drain(&request_queue_header);
    drain(&fail_queue_header);
    while (!list_empty(&total_interim_queue_header)) {
        auto *q = reinterpret_cast<interim_queue *>(total_interim_queue_header.next);
        drain(&q->interim_queue_header);
        list_del(&q->total_interim_queue);
        mtr_free(q);
    }
    std::sort(removed, removed + nremoved);
    for (size_t i = 0; i < nremoved; i++) {
        if (i == 0 || removed[i] != removed[i - 1]) {
            empty_radius_profile(removed[i]);
            mtr_free(removed[i]);
        }
    }
    nremoved = 0;
    for (list_head *head : {&total_radius_server_header, &portal_radius_server_header}) {
        while (!list_empty(head)) {
            auto *radius = list_entry(head->next, accounting_radius, total_radius_server);
            remove_radius(radius);
            empty_radius_profile(radius);
            mtr_free(radius);
        }
    }
    while (!list_empty(&event_header)) {
        list_head *e = event_header.next;
        list_del(e);
        mtr_free(list_entry(e, scheduler_event_register, register_event));
    }
    for (hash_table &bucket : mac_hash_table) {
        while (!list_empty(&bucket.head)) {
            list_head *e = bucket.head.next;
            list_del(e);
            mtr_free(list_entry(e, user_entry, user_list));
        }
    }
}

// Signs body (code, then attributes) as the answer to a captured request.
size_t answer(unsigned char *out, const datagram &req, const uint8_t *body, size_t n, bool backup)
{
    n = std::min(n, size_t{RADIUS_RECV_LEN - 1 - RADIUS_HDR_LEN + 1});
    size_t len = RADIUS_HDR_LEN + (n ? n - 1 : 0);
    out[0] = n ? body[0] : 5;
    out[1] = req.bytes[1];
    out[2] = static_cast<unsigned char>(len >> 8);
    out[3] = static_cast<unsigned char>(len);
    memcpy(out + 4, req.bytes + 4, 16);
    if (n > 1)
        memcpy(out + RADIUS_HDR_LEN, body + 1, n - 1);
    const char *secret = backup ? BACKUP_SECRET : PRIMARY_SECRET;
    MD5_CTX ctx;
    pra_MD5Init(&ctx);
    pra_MD5Update(&ctx, out, static_cast<unsigned>(len));
    pra_MD5Update(&ctx, reinterpret_cast<const unsigned char *>(secret), static_cast<unsigned>(strlen(secret)));
    pra_MD5Final(out + 4, &ctx);
    return len;
}

void feed(uint8_t flags, uint8_t select, const uint8_t *bytes, size_t n)
{
    switch (FUZZ_INPUT) {
    case FUZZ_CONTROL:
        control_input(bytes, n);
        break;
    case FUZZ_PORTAL:
        portal_event_input(&portal_rec, bytes, n);
        break;
    case FUZZ_UAM:
        uam_event_input(bytes, std::min(n, sizeof(uam_event)));
        break;
    case FUZZ_LOGIN:
    case FUZZ_REPORT:
    case FUZZ_NETLINK:
        pthread_mutex_lock(&mutex);
        if (FUZZ_INPUT == FUZZ_LOGIN)
            station_login_input(bytes, std::min(n, sizeof(accounting_msg_t)));
        else if (FUZZ_INPUT == FUZZ_REPORT)
            station_report_input(bytes, std::min(n, sizeof(staStatus_t)));
        else
            netlink_input(bytes, std::min(n, size_t{NETLINK_READ_SIZE}));
        pthread_mutex_unlock(&mutex);
        break;
    case FUZZ_RESPONSE: {
        // radius_recv refuses empty datagrams and those of 1024 bytes or more.
        unsigned char *buf = reinterpret_cast<unsigned char *>(&response);
        if ((flags & 0x20) && nsent)
            n = answer(buf, sent[(nsent - 1 - select % std::min(nsent, 16u)) % 16], bytes, n, flags & 0x40);
        else if (n >= 1 && n < RADIUS_RECV_LEN)
            memcpy(buf, bytes, n);
        else
            break;
        radius_response_input(&response);
        break;
    }
    }
}

}  // namespace

// A run allocates a few hundred KiB at most: a smaller quarantine still holds
// freed memory for many runs, and spares the faults of ever fresh pages.
extern "C" const char *__asan_default_options() { return "quarantine_size_mb=16"; }

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    mtr_set_clock([] { return now; });
    radius_sendto = capture;
    console_path = "/dev/null";
    sim_root = "/nonexistent";
    is_cloud = 1;
    init_meterd_db();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const bool response_frames = FUZZ_INPUT == FUZZ_RESPONSE;
    const size_t head = response_frames ? 4 : 3;
    now = EPOCH;
    nsent = 0;
    request_id = 0;
    memset(&control_rec, 0, sizeof control_rec);
    memset(&portal_rec, 0, sizeof portal_rec);
    memset(&response, 0, sizeof response);
    bool cloud_only = FUZZ_INPUT == FUZZ_PORTAL || FUZZ_INPUT == FUZZ_UAM;
    is_cloud = cloud_only || size == 0 || !(data[0] & 0x80);
    debug = 0;
    baseline();

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
        if (flags & 0x10) {
            pthread_mutex_lock(&mutex);
            scheduler_pass(now);
            pthread_mutex_unlock(&mutex);
        }
        data += n;
        size -= n;
    }
    debug = 0;
    reset();
    return 0;
}
